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
  std::pair<unsigned, unsigned> expected{0, 0};
  for (const char* file : {"libReplaced1024.so", "libReplaced4096.so", "libReplaced1024.so"}) {
    std::pair<unsigned, unsigned> frames{framesThrough(file), 0};
    std::jthread([&] { frames.second = framesThrough(file); }).join();
    if (expected.first == 0) expected = frames;
    EXPECT_GT(std::min(frames.first, frames.second), 3U);
    EXPECT_EQ(frames, expected) << file;
  }
}

}  // namespace
