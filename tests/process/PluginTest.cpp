#include "Tarvo/Plugin.h"

#include "Tarvo/Loco.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Platform::loadPlugin;
using Tarvo::Platform::registerPlugin;

TEST(PluginTest, ALibraryIsLoadedOnceAndMustRegisterItsName) {
  auto* greeter = loadPlugin("TarvoGreeter");
  ASSERT_NE(greeter, nullptr);
  EXPECT_STREQ(greeter->name(), "TarvoGreeter");
  EXPECT_EQ(loadPlugin("TarvoGreeter"), greeter);
  const auto child = runForked([] {  // what is loaded stays
    std::puts(failureOf([] { loadPlugin("TarvoMisnamed"); }).c_str());
    if (Tarvo::Platform::loco().owns_lock()) return 2;
    // The library's names are for all to see, and its initialisers run under the lock.
    const auto* underLock = static_cast<bool*>(dlsym(RTLD_DEFAULT, "misnamedLoadedUnderLock"));
    return underLock != nullptr && *underLock ? 0 : 3;
  });
  EXPECT_EQ(child.exitCode, 0);
  EXPECT_THAT(child.out, HasSubstr("Phooey -- plugin TarvoMisnamed failed to register"));
}

TEST(PluginTest, ALibraryThatIsMissingOrCannotBeBoundWholeIsNoError) {
  const auto loading = [](const char* name) {
    return captured([&] { EXPECT_EQ(loadPlugin(name), nullptr); });
  };
  EXPECT_THAT(loading("nowhere"),
              HasSubstr("Platform::loadPlugin() Failed to load plugin libnowhere.so: "));
  EXPECT_THAT(loading("TarvoUnbound"), HasSubstr("nowhereDefined"));
}

TEST(PluginTest, ANameIsTakenOnce) {
  static struct : Tarvo::Platform::Plugin {
    const char* name() override { return Tarvo::Platform::loco().owns_lock() ? "twin" : "late"; }
  } first, second;
  registerPlugin(&first);
  EXPECT_THAT(failureOf([] { registerPlugin(&second); }),
              HasSubstr("Plugin twin already registered"));
  EXPECT_EQ(loadPlugin("twin"), &first);
}

}  // namespace
