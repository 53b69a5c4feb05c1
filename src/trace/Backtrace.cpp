#include "Tarvo/Backtrace.h"

#define UNW_LOCAL_ONLY
#include <dlfcn.h>
#include <fmt/format.h>
#include <libunwind.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace Tarvo {

Backtrace::Backtrace(bool capture) {
  if (capture) unwind();
}

#ifdef __SANITIZE_THREAD__

// The unwinder frees its per-thread cache at a moment when the thread sanitizer has already given
// the thread up, and crashes in it. Single steps do without that cache.
void Backtrace::unwind() {
  unw_context_t context;
  unw_getcontext(&context);
  unw_cursor_t cursor;
  unw_init_local(&cursor, &context);
  unw_word_t ip = 0;
  size_ = 0;
  while (size_ < maxFrames && unw_step(&cursor) > 0 && unw_get_reg(&cursor, UNW_REG_IP, &ip) == 0) {
    addresses_[size_++] = reinterpret_cast<void*>(ip);
  }
}

#else

// unw_backtrace() walks with the unwinder's per-thread cache, some forty times faster than single
// steps. It begins with the frame that calls it, which is not wanted.
void Backtrace::unwind() {
  void* frames[maxFrames + 1];
  const int found = unw_backtrace(frames, maxFrames + 1);
  size_ = found > 1 ? static_cast<unsigned>(found - 1) : 0;
  std::copy_n(frames + 1, size_, addresses_.begin());
}

#endif

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
