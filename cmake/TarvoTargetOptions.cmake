# One place for what every target of this project is compiled with.
set(TARVO_SANITIZE "" CACHE STRING "Value for -fsanitize=, empty for none")
option(TARVO_COVERAGE "Instrument for gcov" OFF)

function(tarvo_target_options target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
  file(RELATIVE_PATH from_build ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR}/cmake)
  string(REGEX REPLACE "cmake$" "" from_build ${from_build})
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion
    $<$<BOOL:${TARVO_WARNINGS_AS_ERRORS}>:-Werror>
    # Messages and traces name files as they stand in the repository, wherever it was built, also
    # where a compiler cache names them from the build folder.
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${from_build}=)
  if(TARVO_SANITIZE)
    target_compile_options(${target} PRIVATE -fsanitize=${TARVO_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${TARVO_SANITIZE})
    if(TARVO_SANITIZE MATCHES "undefined")
      target_compile_options(${target} PRIVATE -fno-sanitize-recover=undefined)
    endif()
  endif()
  if(TARVO_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage -fprofile-update=atomic)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()
