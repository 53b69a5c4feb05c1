#include "Tarvo/Symbols.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "Tarvo/Exception.h"
#include "Tarvo/Loco.h"
#include "Tarvo/Mappings.h"
#include "Tarvo/TypeName.h"
#include "foundation/AtFork.h"
#include "util/SymbolReader.h"

namespace Tarvo {

namespace {

/// Searches beside this library first, so that an installed tree can be moved.
void* loadReaders() {
  static const char ownAddress = 0;
  Dl_info own;
  if (dladdr(&ownAddress, &own) != 0 && own.dli_fname != nullptr) {
    const std::string_view path = own.dli_fname;
    const String beside(path.substr(0, path.rfind('/') + 1));
    if (void* library = dlopen((beside + TARVO_SYMBOLS_FILE).c_str(), RTLD_NOW)) return library;
  }
  return dlopen(TARVO_SYMBOLS_FILE, RTLD_NOW);
}

Impl::OpenModule* openModule() {
  static Impl::OpenModule* opener = nullptr;
  const Platform::LocoGuard guard;
  if (opener != nullptr) return opener;
  if (Impl::forkedAmongThreads()) {
    RuntimeException::throwException("cannot load " TARVO_SYMBOLS_FILE
                                     " in a child that was forked among threads");
  }
  void* library = loadReaders();
  void* found = library != nullptr ? dlsym(library, Impl::openModuleName) : nullptr;
  if (found == nullptr) {
    RuntimeException::throwException(
        fmt::format("cannot load " TARVO_SYMBOLS_FILE ", which reads symbols: {}", dlerror()));
  }
  return opener = reinterpret_cast<Impl::OpenModule*>(found);
}

/// Identifies a file, to notice when another one has taken its name.
using FileIdentity = std::tuple<dev_t, ino_t, off_t, time_t, long>;

std::optional<FileIdentity> identityOf(const String& file) {
  struct stat status;
  if (stat(file.c_str(), &status) != 0) return std::nullopt;
  return FileIdentity(status.st_dev, status.st_ino, status.st_size, status.st_mtim.tv_sec,
                      status.st_mtim.tv_nsec);
}

/// A mapped file with code.
class Module {
 public:
  explicit Module(const Mapping& first)
      : begin_(first.begin),
        end_(first.end),
        firstEnd_(first.end),
        path_(first.path),
        source_(first.device, first.inode),
        identity_(first.deleted ? std::nullopt : identityOf(path_)) {}

  std::uintptr_t begin() const { return begin_; }
  std::uintptr_t end() const { return end_; }
  bool executable() const { return executable_; }
  void extend(const Mapping& more) {
    end_ = more.end;
    executable_ = executable_ || more.executable;
  }
  bool goesOn(const Mapping& more) const { return more.offset != 0 && isOf(more); }
  bool isSame(const Module& other) const {
    return begin_ == other.begin_ && end_ == other.end_ && source_ == other.source_ &&
           path_ == other.path_;
  }

  /// A number that grows with each module that is closed; 0 while the module is open.
  unsigned long closed() const { return closed_; }
  void closedIs(unsigned long closed) { closed_ = closed; }

  Symbol symbolAt(std::uintptr_t address) {
    Symbol symbol;
    symbol.address = address;
    symbol.module = path_;
    symbol.offset = address - begin_;
    symbol.closed = closed_ != 0;
    if (!std::exchange(tried_, true)) open();
    if (reader_ == nullptr) return symbol;
    auto place = reader_->at(address);
    const bool mangled = place.function.starts_with("_Z");
    symbol.function = mangled ? typeName(place.function.c_str()) : std::move(place.function);
    symbol.file = std::move(place.file);
    symbol.line = place.line;
    return symbol;
  }

 private:
  bool isOf(const Mapping& mapping) const {
    return source_ == std::pair(mapping.device, mapping.inode) && path_ == mapping.path;
  }
  void open() {
    String file = path_;
    // The file was removed or replaced. While the module is mapped, the kernel still gives access
    // to the mapped file; after that its symbols are lost.
    if (!identity_ || identityOf(file) != identity_) {
      if (closed_ != 0) return;
      file = fmt::format("/proc/self/map_files/{:x}-{:x}", begin_, firstEnd_);
      if (identity_ && identityOf(file) != identity_) return;
    }
    reader_.reset(openModule()(path_.c_str(), file.c_str(), begin_));
  }

  std::uintptr_t begin_;
  std::uintptr_t end_;
  std::uintptr_t firstEnd_;  // of its first mapping
  String path_;
  std::pair<dev_t, ino_t> source_;
  std::optional<FileIdentity> identity_;  // none when the file was removed before
  bool executable_ = false;
  unsigned long closed_ = 0;
  bool tried_ = false;
  std::unique_ptr<Impl::SymbolReader> reader_;
};

}  // namespace

/// The modules with code of the process, by address, including some that have been closed.
class Symbols::Modules {
 public:
  /// Reads the memory map; returns whether a module has changed.
  bool refresh() {
    auto before = std::exchange(modules_, loaded());
    bool changed = false;
    for (auto& [begin, module] : modules_) {
      const auto known = before.find(begin);
      if (known != before.end() && known->second.isSame(module)) {
        changed = changed || known->second.closed() != 0;
        known->second.closedIs(0);
        module = std::move(known->second);
        before.erase(known);
      } else {
        changed = true;
      }
    }
    for (auto& [begin, module] : before) {
      changed = changed || module.closed() == 0;
      if (module.closed() == 0) module.closedIs(++closings_);
      if (!overlaps(module)) modules_.emplace(begin, std::move(module));
    }
    forgetOldest();
    return changed;
  }

  Symbol symbolAt(std::uintptr_t address) {
    const auto behind = modules_.upper_bound(address);
    if (behind != modules_.begin()) {
      auto& module = std::prev(behind)->second;
      if (address < module.end()) return module.symbolAt(address);
    }
    Symbol unknown;
    unknown.address = address;
    return unknown;
  }

 private:
  using ByAddress = std::map<std::uintptr_t, Module>;
  static constexpr std::ptrdiff_t mostClosed = 64;

  static ByAddress loaded() {
    std::vector<Module> found;
    for (const auto& mapping : Mappings::self()) {
      if (mapping.kind != MappingKind::file && mapping.kind != MappingKind::vdso) continue;
      if (found.empty() || !found.back().goesOn(mapping)) found.emplace_back(mapping);
      found.back().extend(mapping);
    }
    ByAddress modules;
    for (Module& module : found) {
      if (module.executable()) modules.emplace(module.begin(), std::move(module));
    }
    return modules;
  }

  bool overlaps(const Module& wanted) const {
    const auto behind = modules_.lower_bound(wanted.end());
    return behind != modules_.begin() && std::prev(behind)->second.end() > wanted.begin();
  }

  void forgetOldest() {
    const auto isClosed = [](const auto& entry) { return entry.second.closed() != 0; };
    while (std::ranges::count_if(modules_, isClosed) > mostClosed) {
      modules_.erase(std::ranges::min_element(modules_, {}, [&](const auto& entry) {
        return isClosed(entry) ? entry.second.closed() : ~0UL;
      }));
    }
  }

  ByAddress modules_;
  unsigned long closings_ = 0;
};

/// A cache of results in two generations. When the young one is full it becomes the old one, and
/// the old one is dropped as a whole.
class Symbols::Cache {
 public:
  const Symbol& at(std::uintptr_t address, Modules& modules) {
    if (const auto found = young_.find(address); found != young_.end()) return found->second;
    if (young_.size() == generation) {
      old_ = std::move(young_);
      young_.clear();
    }
    if (const auto found = old_.find(address); found != old_.end()) {
      return young_.insert(old_.extract(found)).position->second;
    }
    return young_.emplace(address, modules.symbolAt(address)).first->second;
  }
  void clear() {
    young_.clear();
    old_.clear();
  }

 private:
  static constexpr std::size_t generation = 8192;
  std::unordered_map<std::uintptr_t, Symbol> young_;
  std::unordered_map<std::uintptr_t, Symbol> old_;
};

Symbols::Symbols() : modules_(std::make_unique<Modules>()), cache_(std::make_unique<Cache>()) {
  openModule();
  modules_->refresh();
}

Symbols::~Symbols() = default;

std::vector<Symbol> Symbols::of(std::span<const std::uintptr_t> addresses) {
  if (modules_->refresh()) cache_->clear();
  std::vector<Symbol> symbols;
  symbols.reserve(addresses.size());
  for (const auto address : addresses) symbols.push_back(cache_->at(address, *modules_));
  return symbols;
}

Symbol Symbols::of(const void* address) {
  const auto number = reinterpret_cast<std::uintptr_t>(address);
  return std::move(of(std::span(&number, 1)).front());
}

std::vector<Symbol> Symbols::of(const Backtrace& backtrace) {
  std::vector<std::uintptr_t> calls;
  for (unsigned i = 0; i < backtrace.size(); ++i) {
    calls.push_back(reinterpret_cast<std::uintptr_t>(backtrace.address(i)) - 1);
  }
  return of(calls);
}

String Symbol::text() const {
  if (module.empty()) return fmt::format("{:#x}", address);
  String all = function;
  if (line != 0) all += fmt::format("{}at {}:{}", all.empty() ? "" : " ", file, line);
  return all + fmt::format("{}in {}+{:#x}", all.empty() ? "" : " ", module, offset);
}

}  // namespace Tarvo
