// Shows what a process is, and what stands where in its memory. Usage: ShowProcess [PID]; without a
// number, itself.

#include <Tarvo/Exception.h>
#include <Tarvo/Mappings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc < 2) Tarvo::Process::titleIs("example");
  const auto process = Tarvo::Process::of(argc > 1 ? std::atoi(argv[1]) : getpid());
  if (!process) {
    std::printf("no such process\n");
    return 1;
  }
  const auto started = std::chrono::system_clock::to_time_t(process->startWallTime());
  std::printf("process %d (%s) since %s", process->pid(),
              process->title().value_or("ended").c_str(), std::ctime(&started));
  if (const auto arguments = process->commandLine()) {
    for (const auto& argument : *arguments) std::printf("  argument \"%s\"\n", argument.c_str());
  }
  try {
    const auto map = Tarvo::Mappings::of(*process);
    if (!map) return 0;
    for (const auto& mapping : *map) {
      if (!mapping.executable) continue;
      std::printf("  code at %#zx of %.*s\n", static_cast<std::size_t>(mapping.begin),
                  static_cast<int>(mapping.path.size()), mapping.path.data());
    }
  } catch (const Tarvo::NoPermissionException& e) {
    std::printf("%s\n", e.msg().c_str());
  }
}
