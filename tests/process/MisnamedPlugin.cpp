/// A plug-in whose file is called otherwise than the plug-in itself.

#include "Tarvo/Loco.h"
#include "Tarvo/Plugin.h"

// What the loading thread holds, for whoever finds the name among all symbols of the process.
extern "C" {
__attribute__((visibility("default"))) bool misnamedLoadedUnderLock =
    Tarvo::Platform::loco().owns_lock();
}

namespace {

struct Other : Tarvo::Platform::Plugin {
  const char* name() override { return "other"; }
} other;

const bool registered = (Tarvo::Platform::registerPlugin(&other), true);

}  // namespace
