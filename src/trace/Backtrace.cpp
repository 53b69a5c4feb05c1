#include "Tarvo/Backtrace.h"

#define UNW_LOCAL_ONLY
#include <execinfo.h>
#include <libunwind.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "foundation/AtFork.h"
#include "trace/Backtrace.h"
#include "trace/FrameText.h"

namespace Tarvo {

Backtrace::Backtrace(bool capture) {
  if (capture) unwind();
}

namespace {

#ifdef __SANITIZE_THREAD__

// libunwind frees its per-thread cache at a thread's end, after the thread sanitizer has freed its
// own state of the thread, and crashes there.
bool libunwindIsFit() { return false; }

#else

/// Whether libunwind's caches can be trusted. It caches how to unwind the frame at an address, once
/// per process and once per thread. After a module is unloaded, another one may be mapped at its
/// addresses, and the caches are wrong. The cache of the process can be flushed. The cache of a
/// thread cannot, so a thread that has used libunwind before an unload must not use it afterwards.
bool libunwindIsFit() {
  if (Impl::forkedAmongThreads()) return false;  // libunwind's locks may be locked for ever
  static std::atomic<unsigned long long> unloadsAtClearing{0};
  thread_local bool begun = false;
  thread_local unsigned long long unloadsAtFirst = 0;
  const unsigned long long now = Impl::moduleUnloads();
  if (!begun) {
    if (unloadsAtClearing.load(std::memory_order_acquire) != now) {
      unw_flush_cache(unw_local_addr_space, 0, 0);
      unloadsAtClearing.store(now, std::memory_order_release);
    }
    begun = true;
    unloadsAtFirst = now;
  }
  return unloadsAtFirst == now;
}

#endif

}  // namespace

// unw_backtrace() uses libunwind's per-thread cache and is some thirty times faster than
// backtrace(), the C library's function, which has neither locks nor caches of its own. Both
// results begin with the frame of unwind(), and with a sanitizer's frame if there is one. The find
// skips those.
void Backtrace::unwind() {
  constexpr int most = maxFrames + 2;
  void* frames[most];
  void** const end =
      frames + (libunwindIsFit() ? unw_backtrace(frames, most) : backtrace(frames, most));
  void** const caller = std::find(frames, end, __builtin_return_address(0));
  size_ = static_cast<unsigned>(std::min<std::ptrdiff_t>(end - caller, maxFrames));
  std::copy_n(caller, size_, addresses_.begin());
}

void Impl::loadUnwinder() {
  void* frame = nullptr;
  backtrace(&frame, 1);
}

String Backtrace::pretty() const {
  String text;
  if (size_ == 0) text += "No backtrace available\n";
  text += "Backtrace:\n";
  Impl::appendFrames(text, addresses_.data(), size_);
  return text;
}

int Backtrace::verbosity() {
  const char* value = std::getenv("TARVO_BACKTRACE_VERBOSITY");
  return value != nullptr && std::strcmp(value, "0") == 0 ? 0 : 1;
}

}  // namespace Tarvo
