#include "Tarvo/Plugin.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

#include "Tarvo/Loco.h"
#include "support/ChildProcess.h"
#include "support/Failure.h"

namespace {

using testing::HasSubstr;
using testsupport::failureOf;

struct Named : Tarvo::Platform::Plugin {
  explicit Named(const char* pluginName) : own(pluginName) {}
  const char* name() override {
    locked = locked && Tarvo::Platform::loco().owns_lock();
    return own;
  }
  const char* own;
  bool locked = true;  // at each asking
};

TEST(PluginTest, AMissingLibraryIsNoError) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Tarvo::Platform::loadPlugin("nowhere"), nullptr);
  EXPECT_THAT(
      testing::internal::GetCapturedStderr(),
      HasSubstr(" TarvoPlugin 0 Platform::loadPlugin() Failed to load plugin libnowhere.so: "));
}

TEST(PluginTest, ALibraryIsLoadedOnceAndMustRegisterItsName) {
  auto* greeter = Tarvo::Platform::loadPlugin("TarvoGreeter");
  ASSERT_NE(greeter, nullptr);
  EXPECT_STREQ(greeter->name(), "TarvoGreeter");
  EXPECT_EQ(Tarvo::Platform::loadPlugin("TarvoGreeter"), greeter);
  const auto child = testsupport::runForked([] {  // what is loaded stays
    const auto failure = failureOf([] { Tarvo::Platform::loadPlugin("TarvoMisnamed"); });
    if (failure.find("Phooey -- plugin TarvoMisnamed failed to register") == failure.npos) return 1;
    if (Tarvo::Platform::loco().owns_lock()) return 2;
    // The library's names are for all to see, and its initialisers run under the lock.
    const auto* underLock = static_cast<bool*>(dlsym(RTLD_DEFAULT, "misnamedLoadedUnderLock"));
    return underLock != nullptr && *underLock ? 0 : 3;
  });
  EXPECT_EQ(child.exitCode, 0);
}

TEST(PluginTest, ALibraryIsBoundWholeWhenItIsLoaded) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(Tarvo::Platform::loadPlugin("TarvoUnbound"), nullptr);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("nowhereDefined"));
}

TEST(PluginTest, ANameIsTakenOnce) {
  static Named first("twin");
  static Named second("twin");
  Tarvo::Platform::registerPlugin(&first);
  EXPECT_TRUE(first.locked);
  EXPECT_THAT(failureOf([] { Tarvo::Platform::registerPlugin(&second); }),
              HasSubstr("Plugin twin already registered"));
  EXPECT_EQ(Tarvo::Platform::loadPlugin("twin"), &first);
  EXPECT_THROW(Tarvo::Platform::registerPlugin(nullptr), Tarvo::AssertException);
  // The misnamed library registers "other": taken already, it fails inside the dynamic loader.
  static Named other("other");
  const auto child = testsupport::runForked([] {
    Tarvo::Platform::registerPlugin(&other);
    const auto failure = failureOf([] { Tarvo::Platform::loadPlugin("TarvoMisnamed"); });
    return failure.find("Plugin other already registered") != Tarvo::String::npos &&
                   Tarvo::Platform::loadPlugin("TarvoGreeter") != nullptr
               ? 0
               : 1;
  });
  EXPECT_EQ(child.exitCode, 0);
}

}  // namespace
