#include <dlfcn.h>

#include "Tarvo/Fmt.h"

/// Formats without the rest of the library, or loads all of it privately, as a plug-in would.
int main(int argc, char** argv) {
  if (argc == 1) Tarvo::Fmt::Impl::dumpDebugMsg("lost", 4, 0, nullptr, "file", "main", 1);
  const char* name = "_ZN5Tarvo13checkIncompatEv";
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr || dlsym(RTLD_DEFAULT, name) != nullptr) return 1;
  reinterpret_cast<void (*)()>(dlsym(library, name))();
  return dlsym(RTLD_DEFAULT, name) != nullptr ? 0 : 2;
}
