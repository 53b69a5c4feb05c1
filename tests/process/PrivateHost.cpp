/// Loads the library for itself alone; its check must make it known to all.

#include <dlfcn.h>

int main(int, char** argv) {
  void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
  const auto known = [] { return dlsym(RTLD_DEFAULT, "platformLibPresenceFlag") != nullptr; };
  const bool before = known();
  reinterpret_cast<void (*)()>(dlsym(library, "_ZN5Tarvo13checkIncompatEv"))();
  return !before && known() ? 0 : 1;
}
