#ifndef TARVO_SYMBOLS_H
#define TARVO_SYMBOLS_H

/// Names for addresses of code: module, function, source file and line. For reports of stacks and
/// of what a heap holds.
///
///     Tarvo::Symbols symbols;
///     for (const auto& symbol : symbols.of(exceptionsBacktrace)) print(symbol.text());
///
/// What reads debug information is a library of its own, "libTarvoSymbols.so", beside libTarvo.so;
/// it is loaded when the first Symbols is made, and stays. A service that makes none does not carry
/// it. Debug information is looked for in the module, under /usr/lib/debug by build id, and where
/// the module's debug link says: beside it, in its folder .debug, in its folder under
/// /usr/lib/debug. The network is never asked.
///
/// Each call of of() reads the memory map of the process anew (some 0.1 ms), so ask for many
/// addresses at once. Modules that were closed since an earlier call, or since the object was made,
/// are remembered, 64 of them, until others take their addresses. A file that was replaced since is
/// read as it was mapped where the kernel lets this process do so (CAP_SYS_ADMIN or
/// CAP_CHECKPOINT_RESTORE), and otherwise gives no names rather than wrong ones.
///
/// The last answers are kept, some 16,000. The object holds what it has read of debug information,
/// which may be many times the size of the code: destroy it to give that back. One thread may use
/// it at a time. A forked child may use one of its parent's, but not make the process's first one
/// when it was forked among threads: the dynamic loader's lock may be held for ever there.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// What stands at an address. What is not known is empty.
struct TARVO_EXPORT Symbol {
  std::uintptr_t address = 0;
  String module;              // the path of its file, or a name of the kernel's like "[vdso]"
  std::uintptr_t offset = 0;  // from where the module begins
  String function;            // demangled
  String file;                // where the source was compiled
  int line = 0;               // of code that may have been inlined into that function
  bool closed = false;        // the module was closed meanwhile

  /// "function at file:line in module+0xoffset", of it what is known, and the address alone when
  /// nothing is.
  String text() const;
};

class TARVO_EXPORT Symbols {
 public:
  /// Remembers what is loaded now. Throws RuntimeException, with the loader's reason, when
  /// libTarvoSymbols.so is not installed.
  Symbols();
  Symbols(const Symbols&) = delete;
  Symbols& operator=(const Symbols&) = delete;
  ~Symbols();

  /// In the order of the addresses.
  std::vector<Symbol> of(std::span<const std::uintptr_t> addresses);
  Symbol of(const void* address);
  /// Of each frame the call, which stands before the address that it returns to.
  std::vector<Symbol> of(const Backtrace& backtrace);

 private:
  class Modules;
  class Cache;
  std::unique_ptr<Modules> modules_;
  std::unique_ptr<Cache> cache_;
};

}  // namespace Tarvo

#endif
