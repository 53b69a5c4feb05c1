#include "Tarvo/ForkHandler.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <iostream>

#include "Tarvo/Assert.h"

namespace Tarvo::Platform {

namespace {
std::atomic<bool> forkedChild{false};
}

void setupHandler() {
  const int error = pthread_atfork(nullptr, nullptr, handleFork);
  if (error == 0) return;
  errno = error;  // the call returns its error and leaves errno alone
  std::cerr << "Tarvo failed to register atfork handler, reason: " << std::strerror(errno) << "\n"
            << std::flush;
  TARVO_CHECK(false && "Failed to register Tarvo atfork handler");
}

void handleFork() { forkedChildIs(true); }

bool isForkedChild() { return forkedChild.load(std::memory_order_relaxed); }

void forkedChildIs(bool forked) { forkedChild.store(forked, std::memory_order_relaxed); }

}  // namespace Tarvo::Platform
