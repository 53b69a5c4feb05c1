/// A plug-in: "libTarvoGreeter.so" registers itself as "TarvoGreeter" while it is loaded.

#include "Greeter.h"

namespace {

class FriendlyGreeter : public Greeter {
 public:
  const char* name() override { return "TarvoGreeter"; }
  std::string greet(const std::string& whom) override { return "Hello, " + whom + "!"; }
};

FriendlyGreeter greeter;
const bool registered = (Tarvo::Platform::registerPlugin(&greeter), true);

}  // namespace
