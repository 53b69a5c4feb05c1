#include "Tarvo/Backtrace.h"

#define UNW_LOCAL_ONLY
#include <dlfcn.h>
#include <execinfo.h>
#include <fmt/format.h>
#include <libunwind.h>
#include <link.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "foundation/AtFork.h"
#include "trace/Backtrace.h"

namespace Tarvo {

Backtrace::Backtrace(bool capture) {
  if (capture) unwind();
}

namespace {

#ifdef __SANITIZE_THREAD__

// libunwind frees its per-thread cache at a moment when the thread sanitizer has already given the
// thread up, and crashes in it.
bool libunwindIsFit() { return false; }

#else

/// How many modules the dynamic loader has taken away so far.
unsigned long long unloads() {
  unsigned long long count = 0;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* found) {
        *static_cast<unsigned long long*>(found) = info->dlpi_subs;
        return 1;  // each module tells the same
      },
      &count);
  return count;
}

/// libunwind remembers how the frames at an address are walked, once for the process and once for
/// each thread. When modules go, others may take their addresses. The process's memory can be
/// cleared, that of a thread cannot: it holds until the first unloading.
bool libunwindIsFit() {
  if (Impl::forkedAmongThreads()) return false;  // its locks may be locked for ever
  static std::atomic<unsigned long long> unloadsAtClearing{0};
  thread_local bool begun = false;
  thread_local unsigned long long unloadsAtFirst = 0;
  const unsigned long long now = unloads();
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

// unw_backtrace() walks with libunwind's per-thread cache, some thirty times faster than the
// compiler's unwinder, which in turn waits for nobody and remembers nothing. Both begin with the
// frame that calls them, which is not wanted; nor is that of a sanitizer in between.
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
  const auto out = std::back_inserter(text);
  if (size_ == 0) text += "No backtrace available\n";
  text += "Backtrace:\n";
  for (unsigned i = 0; i < size_; ++i) {
    void* address = addresses_[i];
    Dl_info info;
    if (dladdr(address, &info) != 0) {
      const bool named = info.dli_sname != nullptr;
      const void* from = named ? info.dli_saddr : info.dli_fbase;
      fmt::format_to(out, "{}({}+{:#x})", info.dli_fname != nullptr ? info.dli_fname : "",
                     named ? info.dli_sname : "",
                     static_cast<char*>(address) - static_cast<const char*>(from));
    }
    fmt::format_to(out, "[{}]\n", address);
  }
  return text;
}

int Backtrace::verbosity() {
  const char* value = std::getenv("TARVO_BACKTRACE_VERBOSITY");
  return value != nullptr && std::strcmp(value, "0") == 0 ? 0 : 1;
}

}  // namespace Tarvo
