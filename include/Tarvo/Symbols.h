#ifndef TARVO_SYMBOLS_H
#define TARVO_SYMBOLS_H

/// Finds module, function, source file and line of a code address. For reports of stacks and heaps.
///
///     Tarvo::Symbols symbols;
///     for (const auto& symbol : symbols.of(exceptionsBacktrace)) print(symbol.text());
///
/// Debug information is read by a library of its own, "libTarvoSymbols.so", beside libTarvo.so. The
/// first Symbols of the process loads it, and it stays loaded. A service that makes no Symbols does
/// not load it. Debug information is searched for in the module, under /usr/lib/debug by build id,
/// and by the module's debug link: in the module's directory, in its subdirectory .debug, and in
/// the same path under /usr/lib/debug. Never over the network.
///
/// Each call of of() reads the memory map of the process again (some 0.1 ms), so ask for many
/// addresses at once. Modules that were closed since an earlier call, or since the object was made,
/// are remembered, up to 64 of them, until other modules take their addresses. If a module's file
/// was replaced, the mapped file is read where the kernel allows it (CAP_SYS_ADMIN or
/// CAP_CHECKPOINT_RESTORE); otherwise there are no names rather than wrong ones.
///
/// Some 16,000 results are cached. The object keeps the debug information that it has read, which
/// may be many times the size of the code; destroying it frees that. One thread may use it at a
/// time. A forked child may use a Symbols of its parent. But if the parent had other threads, the
/// child cannot make the first one of the process: the dynamic loader's lock may be locked for ever
/// there.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// What is known about an address; unknown members are empty.
struct TARVO_EXPORT Symbol {
  std::uintptr_t address = 0;
  String module;              // the path of its file, or a name of the kernel's like "[vdso]"
  std::uintptr_t offset = 0;  // from where the module begins
  String function;            // demangled
  String file;                // the source file, as the compiler recorded it
  int line = 0;               // may be inside a function that was inlined into `function`
  bool closed = false;        // the module has been closed

  /// "function at file:line in module+0xoffset" without the unknown parts; the address alone when
  /// nothing is known.
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
  /// For each frame, the call instruction: it is just before the return address.
  std::vector<Symbol> of(const Backtrace& backtrace);

 private:
  class Modules;
  class Cache;
  std::unique_ptr<Modules> modules_;
  std::unique_ptr<Cache> cache_;
};

}  // namespace Tarvo

#endif
