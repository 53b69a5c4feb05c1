#include "trace/FrameText.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <link.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <new>
#include <string_view>

#include "foundation/AtFork.h"

namespace Tarvo::Impl {

unsigned long long moduleUnloads() {
  unsigned long long count = 0;
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* found) {
        *static_cast<unsigned long long*>(found) = info->dlpi_subs;
        return 1;  // every module reports the same number, so the first one is enough
      },
      &count);
  return count;
}

namespace {

/// Returns whether the address is in a module.
bool look(String& text, void* address) {
  Dl_info info;
  const bool known = dladdr(address, &info) != 0;
  const auto out = std::back_inserter(text);
  if (known) {
    const bool named = info.dli_sname != nullptr;
    const void* from = named ? info.dli_saddr : info.dli_fbase;
    fmt::format_to(out, "{}({}+{:#x})", info.dli_fname != nullptr ? info.dli_fname : "",
                   named ? info.dli_sname : "",
                   static_cast<char*>(address) - static_cast<const char*>(from));
  }
  fmt::format_to(out, "[{}]\n", address);
  return known;
}

/// Lines by address, all of a time in which no module was unloaded. A later module may be loaded at
/// the addresses of one that is gone.
class FrameLines {
 public:
  /// Never destroyed: static objects may still print while the process exits. This function and
  /// keep() stay in the stacks of what they allocate, where the lists of what is kept name them.
  [[gnu::noinline]] static FrameLines* make() { return new (std::nothrow) FrameLines; }

  /// Appends the line of the address; false without one.
  bool append(String& text, const void* address, unsigned long long unloads) {
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock()) return false;
    if (unloads_ != unloads) {
      for (Line& line : lines_) line.address = nullptr;
      unloads_ = unloads;
    }
    const Line& line = lineOf(address);
    if (line.address != address || address == nullptr) return false;
    text += line.text;
    return true;
  }

  [[gnu::noinline]] void keep(const void* address, std::string_view text,
                              unsigned long long unloads) {
    if (text.size() > longestLine) return;
    const std::unique_lock lock(mutex_, std::try_to_lock);
    if (!lock.owns_lock() || unloads_ != unloads) return;
    Line& line = lineOf(address);
    line.address = nullptr;
    try {
      line.text = text;
      line.address = address;
    } catch (const std::bad_alloc&) {  // it is looked up again next time
    }
  }

 private:
  static constexpr std::size_t lineCount = 512;
  static constexpr std::size_t longestLine = 1024;

  struct Line {
    const void* address = nullptr;  // null: no line
    String text;
  };

  Line& lineOf(const void* address) {
    const auto number = reinterpret_cast<std::uintptr_t>(address);
    return lines_[(number ^ number >> 9) % lineCount];
  }

  std::mutex mutex_;
  unsigned long long unloads_ = 0;
  std::array<Line, lineCount> lines_;
};

}  // namespace

void appendFrames(String& text, void* const* addresses, unsigned count) {
  const auto kept = [] {
    static FrameLines* const lines = FrameLines::make();
    return lines;
  };
  // After such a fork locks may be locked for ever, also that of the first call of kept().
  FrameLines* const lines = forkedAmongThreads() ? nullptr : kept();
  if (lines == nullptr) {
    for (unsigned i = 0; i < count; ++i) look(text, addresses[i]);
    return;
  }
  const unsigned long long unloads = moduleUnloads();
  for (unsigned i = 0; i < count; ++i) {
    if (lines->append(text, addresses[i], unloads)) continue;
    const std::size_t begin = text.size();
    // A module that is unloaded during the look-up makes the line doubtful.
    if (look(text, addresses[i]) && moduleUnloads() == unloads) {
      lines->keep(addresses[i], std::string_view(text).substr(begin), unloads);
    }
  }
}

}  // namespace Tarvo::Impl
