#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "Tarvo/Backtrace.h"

namespace {

using Tarvo::Backtrace;

Backtrace captured(false);

/// Frames from here on, by way of a module that is loaded for the moment.
unsigned framesThrough(const char* file) {
  void* module = dlopen(file, RTLD_NOW);
  if (module == nullptr) return 0;
  reinterpret_cast<void (*)(void (*)())>(dlsym(module, "enterModule"))(
      [] { captured = Backtrace(true); });
  dlclose(module);
  return captured.size();
}

TEST(ReplacedModuleTest, AModuleAtTheAddressOfAnotherIsWalkedByItsOwnFrames) {
  unsigned expected = 0;
  unsigned expectedInThread = 0;
  for (const int size : {1024, 4096, 1024, 4096}) {
    const auto file = "libReplaced" + std::to_string(size) + ".so";
    const unsigned frames = framesThrough(file.c_str());
    unsigned inThread = 0;
    std::jthread([&] { inThread = framesThrough(file.c_str()); }).join();
    if (expected == 0) expected = frames;
    if (expectedInThread == 0) expectedInThread = inThread;
    EXPECT_GT(frames, 3U);
    EXPECT_EQ(frames, expected) << size;
    EXPECT_EQ(inThread, expectedInThread) << size;
  }
}

}  // namespace
