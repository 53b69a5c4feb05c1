/// A plug-in that calls what no library has.

#include "Tarvo/Plugin.h"

void nowhereDefined();

namespace {

struct Unbound : Tarvo::Platform::Plugin {
  const char* name() override {
    if (registered) nowhereDefined();
    return "TarvoUnbound";
  }
  bool registered = false;
} unbound;

const bool registered = (Tarvo::Platform::registerPlugin(&unbound), unbound.registered = true);

}  // namespace
