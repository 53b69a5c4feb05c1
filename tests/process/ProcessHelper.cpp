/// Does one thing, named by its first argument, whose effect on the whole process a test looks at.

#include <cstdio>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>

#include "Tarvo/CheckIncompat.h"
#include "Tarvo/LibeventFactory.h"
#include "Tarvo/Trace.h"

/// The C library's, in a process that may believe to have more rights than its caller.
extern "C" [[gnu::visibility("default")]] char* secure_getenv(const char* name) noexcept {
  return std::getenv("PRIVILEGED") != nullptr ? nullptr : std::getenv(name);
}

namespace {
bool noMemory = false;
}

[[gnu::noinline]] void* operator new(std::size_t size) {
  if (void* memory = noMemory ? nullptr : std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace {

/// Traces while the process's static objects are destroyed, or those of a thread.
struct LastWords {
  std::shared_ptr<Tarvo::Platform::DebugHandler> handler;
  ~LastWords() {
    if (handler) TARVO_TRACE(handler, 1, "last words");
  }
} lastWords;

/// Cannot even be described.
struct Unspeakable : std::exception {
  const char* what() const noexcept override { std::terminate(); }
};

void run(const std::string& what) {
  if (what == "list") {
    for (const char* name : {"TaskScheduler", "TarvoX", "Foo"}) {
      lastWords.handler = Tarvo::Platform::getDebugHandler(name);
      std::printf("%s %x\n", name, lastWords.handler->levels());
    }
    std::fflush(stdout);
    Tarvo::Platform::printAllTraceFormat();
    std::printf("TRACE=%s\n", std::getenv("TRACE") != nullptr ? std::getenv("TRACE") : "(unset)");
  }
  if (what == "exit") {
    lastWords.handler = Tarvo::Platform::getDebugHandler("Exit");
    std::jthread([] {
      thread_local LastWords words;
      words.handler = Tarvo::Platform::getDebugHandler("Thread");
    });
  }
  if (what == "throw") Tarvo::throwOnAssertFailIs(true);
  if (what == "memory") noMemory = true;
  if (what == "assert") {
    try {
      throw 1;
    } catch (int) {  // which is not what ends the process
      TARVO_FAIL("reason {}", 5);
    }
  }
  if (what == "family") Tarvo::RuntimeException::throwException({"bo\0m", 4});
  if (what == "standard") throw std::runtime_error("boom");
  if (what == "number") throw 5;
  if (what == "unspeakable") throw Unspeakable();
  if (what == "terminate") std::terminate();
  if (what == "abort") TARVO_ABORT("composed {}", "text");
  if (what == "check") TARVO_CHECK(what == "other" && "the reason");
  if (what == "waitfor") std::printf("%g", Tarvo::waitForDefaultTimeout());
  if (what == "compat") Tarvo::checkIncompat();
}

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) run(argv[i]);
}
