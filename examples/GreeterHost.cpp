/// Loads a plug-in by name and uses it. The dynamic loader must find "libTarvoGreeter.so".

#include <cstdio>

#include "Greeter.h"

int main(int argc, char** argv) {
  auto* plugin = Tarvo::Platform::loadPlugin("TarvoGreeter");
  if (plugin == nullptr) return 1;  // the trace on standard error says why
  auto* greeter = static_cast<Greeter*>(plugin);
  std::puts(greeter->greet(argc > 1 ? argv[1] : "world").c_str());
}
