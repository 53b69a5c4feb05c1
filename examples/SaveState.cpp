// Counts how often it was run, in a file that is whole at any time. Usage: SaveState [FOLDER]

#include <Tarvo/Exception.h>
#include <Tarvo/Util.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  const auto folder = Tarvo::Util::trimpath(argc > 1 ? argv[1] : "./saved/");
  const auto path = folder + "/runs";
  try {
    Tarvo::Util::mkpath(folder, 0755);
    std::error_code error;
    const auto before = Tarvo::Util::fileRead(path, 100, error);
    if (error && error != std::errc::no_such_file_or_directory) {
      std::printf("starting anew: %s\n", error.message().c_str());
    }
    const auto runs = std::strtoul(before.c_str(), nullptr, 10) + 1;
    Tarvo::Util::fileWrite(path, std::to_string(runs) + "\n", 0644);
    std::printf("run %lu, saved in %ju bytes of %s\n", runs,
                static_cast<std::uintmax_t>(Tarvo::Util::fileSize(path)), path.c_str());
  } catch (const Tarvo::RuntimeException& e) {
    std::printf("%s\n", e.msg().c_str());
    return 1;
  }
}
