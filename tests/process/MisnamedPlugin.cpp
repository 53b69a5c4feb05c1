/// A plug-in whose file is called otherwise than the plug-in itself.

#include "Tarvo/Plugin.h"

namespace {

struct Other : Tarvo::Platform::Plugin {
  const char* name() override { return "other"; }
} other;

const bool registered = (Tarvo::Platform::registerPlugin(&other), true);

}  // namespace
