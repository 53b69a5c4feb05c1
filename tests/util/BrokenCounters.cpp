/// Has the right names, and is no plug-in for counters.

#include "Tarvo/Plugin.h"

namespace {

struct Broken : Tarvo::Platform::Plugin {
  const char* name() override { return "Counters"; }
} broken;

const bool registered = (Tarvo::Platform::registerPlugin(&broken), true);

}  // namespace
