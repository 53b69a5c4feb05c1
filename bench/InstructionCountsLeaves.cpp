#include <chrono>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include "AtDepth.h"
#include "InstructionCounts.h"
#include "Tarvo/ConstString.h"
#include "Tarvo/Exception.h"
#include "Tarvo/HashMix.h"
#include "Tarvo/Locking.h"
#include "Tarvo/Platform.h"
#include "Tarvo/TaskScheduler.h"
#include "Tarvo/TaskSchedulerHistory.h"
#include "Tarvo/Trace.h"

namespace counts {

namespace {

/// The compiler must neither leave out what made `value` nor know it from the time before.
template <typename Value>
void opaque(Value& value) {
  asm volatile("" : : "r"(&value) : "memory");
}

struct Connection : Tarvo::Debuggable {
  Connection() : Debuggable("Connection") {}
  [[gnu::noinline]] void send() const {
    TARVO_TRACE(*this, 1, "client {} sent {} bytes", 17, 4096);
  }
};

void trace(std::size_t times) {
  const Connection connection;
  while (times-- > 0) connection.send();
}

void traceToNull(std::size_t times) {
  setenv("TRACEFILE", "/dev/null", 1);
  Tarvo::Platform::setupTarvoDebug("Connection/1");
  trace(times);
}

template <typename Mutex>
void lockAndUnlock(std::size_t times) {
  Mutex mutex;
  while (times-- > 0) {
    mutex.lock();
    opaque(mutex);
    mutex.unlock();
  }
}

void insertIntoHistory(std::size_t times) {
  struct Idle : Tarvo::Task {
    using Task::Task;
    void taskExecute() override {}
  };
  const Idle tasks[] = {{Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal, "first"},
                        {Tarvo::schedulerRootTarvo(), Tarvo::TaskPriority::normal, "second"}};
  Tarvo::TaskSchedulerHistory history(100);
  const auto now = Tarvo::TaskClock::now();
  while (times-- > 0) {
    history.insert(now, Tarvo::TaskSchedulerEventType::runStart, &tasks[times % 2]);
  }
}

void intern(std::size_t times) {
  Tarvo::ConstStringCache cache;
  const Tarvo::ConstStringRef known(cache, "connection 17");
  const std::string text = "connection 17";
  while (times-- > 0) {
    const Tarvo::ConstStringRef handle(cache, text);
    opaque(handle);
  }
}

void copyName(std::size_t times) {
  Tarvo::ConstStringCache cache;
  const Tarvo::ConstStringRef name(cache, "connection 17");
  while (times-- > 0) {
    const Tarvo::ConstStringRef other(name);
    opaque(other);
  }
}

void hash(std::size_t times) {
  const std::string text(64, 'b');
  while (times-- > 0) {
    opaque(text);
    const auto value = Tarvo::Util::hash(text);
    opaque(value);
  }
}

void throwAndCatch(std::size_t times) {
  bool thrown = true;
  while (times-- > 0) {
    try {
      atDepth(10, [&thrown] {
        opaque(thrown);
        if (thrown) throw Tarvo::RuntimeException("what went wrong");
      });
    } catch (const std::exception& e) {
      opaque(e);
    }
  }
}

void backtrace(std::size_t times) {
  atDepth(50, [&times] {
    while (times-- > 0) {
      const Tarvo::Backtrace here(true);
      opaque(here);
    }
  });
}

void readClock(std::size_t times) {
  while (times-- > 0) {
    const auto now = Tarvo::time();
    opaque(now);
  }
}

}  // namespace

std::vector<Path> leafPaths() {
  return {{"trace statement, disabled", trace},
          {"trace statement, to /dev/null", traceToNull},
          {"lock and unlock", lockAndUnlock<Tarvo::Locking::Lock>},
          {"lock and unlock, recursive", lockAndUnlock<Tarvo::Locking::RecursiveLock>},
          {"event of the history", insertIntoHistory},
          {"intern a known name", intern},
          {"copy of an interned name", copyName},
          {"hash of 64 bytes", hash},
          {"throw and catch over 10 frames", throwAndCatch},
          {"backtrace of 50 frames", backtrace},
          {"reading of the clock", readClock}};
}

}  // namespace counts
