#ifndef TARVO_SRC_UTIL_FAILED_H
#define TARVO_SRC_UTIL_FAILED_H

#include <string_view>
#include <system_error>

#include "Tarvo/Exception.h"
#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// "cannot VERB NAME: REASON"; zero bytes in the name are shown as "\0".
String failureText(std::string_view verb, std::string_view name, int error);

inline std::error_code errorCode(int error) { return {error, std::generic_category()}; }

/// Throws a RuntimeException with that text when there is an error.
inline void throwOnError(std::string_view verb, std::string_view name,
                         const std::error_code& error) {
  if (error) RuntimeException::throwException(failureText(verb, name, error.value()));
}

}  // namespace Tarvo::Impl

#endif
