#include <dwarf.h>
#include <elfutils/libdwfl.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/crc.hpp>
#include <cstring>
#include <memory>
#include <new>
#include <tuple>
#include <utility>
#include <vector>

#include "util/SymbolReader.h"

namespace Tarvo::Impl {

namespace {

bool hasChecksum(int fd, std::uint32_t checksum) {
  boost::crc_32_type sum;
  std::array<char, 65536> buffer;
  ssize_t size = 0;
  while ((size = read(fd, buffer.data(), buffer.size())) > 0) {
    sum.process_bytes(buffer.data(), static_cast<std::size_t>(size));
  }
  return size == 0 && sum.checksum() == checksum && lseek(fd, 0, SEEK_SET) == 0;
}

/// Replaces libdwfl's standard search, which would query debuginfod servers: a report must not wait
/// for the network.
int findDebugFile(Dwfl_Module* module, void** user, const char* path, Dwarf_Addr begin,
                  const char* file, const char* link, GElf_Word checksum, char** found) {
  const int byId =
      dwfl_build_id_find_debuginfo(module, user, path, begin, file, link, checksum, found);
  if (byId >= 0 || link == nullptr) return byId;
  const std::string folder(path, std::strrchr(path, '/') + 1);
  for (const auto& name :
       {folder + link, folder + ".debug/" + link, "/usr/lib/debug" + folder + link}) {
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    if (hasChecksum(fd, checksum)) {
      *found = strdup(name.c_str());
      return fd;
    }
    close(fd);
  }
  return -1;
}

int findNoModule(Dwfl_Module*, void**, const char*, Dwarf_Addr, char**, Elf**) { return -1; }

class DwarfReader final : public SymbolReader {
 public:
  DwarfReader(const char* path, const char* file, std::uintptr_t begin) {
    static constexpr Dwfl_Callbacks callbacks{findNoModule, findDebugFile, nullptr, nullptr};
    session_.reset(dwfl_begin(&callbacks));
    if (session_ == nullptr) throw std::bad_alloc();
    dwfl_report_begin(session_.get());
    module_ = dwfl_report_elf(session_.get(), path, file, -1, begin, false);
    dwfl_report_end(session_.get(), nullptr, nullptr);
  }

  bool good() const { return module_ != nullptr; }

  Place at(std::uintptr_t address) override {
    Place place;
    if (!std::exchange(listed_, true)) list();
    if (const char* function = functionAt(address)) {
      place.function.assign(function, std::strcspn(function, "@"));  // without its version
    }
    Dwarf_Addr bias = 0;
    Dwarf_Die* unit = unitAt(address, bias);
    Dwarf_Line* line = unit != nullptr ? dwarf_getsrc_die(unit, address - bias) : nullptr;
    if (line == nullptr) return place;
    const char* file = dwarf_linesrc(line, nullptr, nullptr);
    if (file == nullptr || dwarf_lineno(line, &place.line) != 0) return place;
    Dwarf_Attribute attribute;
    const char* folder = *file != '/'  // no attribute has no text
                             ? dwarf_formstring(dwarf_attr(unit, DW_AT_comp_dir, &attribute))
                             : nullptr;
    if (folder != nullptr) place.file = std::string(folder) + "/";
    place.file += file;
    return place;
  }

 private:
  struct Function {
    std::uintptr_t begin;
    std::uintptr_t end;
    bool local;
    const char* name;
  };
  struct Unit {
    std::uintptr_t begin;
    std::uintptr_t end;
    Dwarf_Addr bias;
    Dwarf_Die* die;
  };

  /// Sorts the functions by address once. libdwfl's own look-up is linear in the number of symbols.
  void list() {
    const int count = dwfl_module_getsymtab(module_);
    for (int i = 1; i < count; ++i) {
      GElf_Sym symbol;
      GElf_Addr at = 0;
      const char* name =
          dwfl_module_getsym_info(module_, i, &symbol, &at, nullptr, nullptr, nullptr);
      const auto type = GELF_ST_TYPE(symbol.st_info);
      if (name == nullptr || symbol.st_shndx == SHN_UNDEF ||
          (type != STT_FUNC && type != STT_GNU_IFUNC)) {
        continue;
      }
      functions_.push_back(
          {at, at + symbol.st_size, GELF_ST_BIND(symbol.st_info) == STB_LOCAL, name});
    }
    std::ranges::sort(functions_, [](const Function& a, const Function& b) {
      return std::tuple(a.begin, b.end, a.local) < std::tuple(b.begin, a.end, b.local);
    });
    const auto [first, last] = std::ranges::unique(functions_, {}, &Function::begin);
    functions_.erase(first, last);
  }

  const char* functionAt(std::uintptr_t address) const {
    const auto behind = std::ranges::upper_bound(functions_, address, {}, &Function::begin);
    if (behind == functions_.begin()) return nullptr;
    const auto& function = *std::prev(behind);
    return address < function.end || function.begin == address ? function.name : nullptr;
  }

  /// Not every compiler writes the table that leads from an address to its unit. Then the units
  /// themselves tell where their code is.
  Dwarf_Die* unitAt(std::uintptr_t address, Dwarf_Addr& bias) {
    if (Dwarf_Die* unit = dwfl_module_addrdie(module_, address, &bias)) return unit;
    if (!std::exchange(unitsListed_, true)) listUnits();
    const auto behind = std::ranges::upper_bound(units_, address, {}, &Unit::begin);
    if (behind == units_.begin() || address >= std::prev(behind)->end) return nullptr;
    bias = std::prev(behind)->bias;
    return std::prev(behind)->die;
  }

  void listUnits() {
    Dwarf_Die* unit = nullptr;
    Dwarf_Addr bias = 0;
    while ((unit = dwfl_module_nextcu(module_, unit, &bias)) != nullptr) {
      Dwarf_Addr base = 0;
      Dwarf_Addr begin = 0;
      Dwarf_Addr end = 0;
      std::ptrdiff_t at = 0;
      while ((at = dwarf_ranges(unit, at, &base, &begin, &end)) > 0) {
        units_.push_back({begin + bias, end + bias, bias, unit});
      }
    }
    std::ranges::sort(units_, {}, &Unit::begin);
  }

  struct End {
    void operator()(Dwfl* session) const { dwfl_end(session); }
  };
  std::unique_ptr<Dwfl, End> session_;
  Dwfl_Module* module_ = nullptr;  // owned by the session, as the names in functions_ are
  bool listed_ = false;
  std::vector<Function> functions_;  // by address
  bool unitsListed_ = false;
  std::vector<Unit> units_;  // by address
};

}  // namespace

}  // namespace Tarvo::Impl

extern "C" __attribute__((visibility("default"))) Tarvo::Impl::SymbolReader* tarvoOpenModule(
    const char* path, const char* file, std::uintptr_t begin) {
  auto reader = std::make_unique<Tarvo::Impl::DwarfReader>(path, file, begin);
  return reader->good() ? reader.release() : nullptr;
}
