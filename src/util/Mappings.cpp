#include "Tarvo/Mappings.h"

#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "Tarvo/Exception.h"
#include "util/ProcFolder.h"

namespace Tarvo {

namespace {

char* firstOf(char c, char* begin, char* end) {
  void* found = std::memchr(begin, c, static_cast<std::size_t>(end - begin));
  return found != nullptr ? static_cast<char*>(found) : end;
}

/// Parses a line from its front.
class Line {
 public:
  Line(char* begin, char* end) : begin_(begin), end_(end) {}

  template <typename Number>
  Number number(int base) {
    Number value = 0;
    const auto result = std::from_chars(at(), end_, value, base);
    good_ = good_ && result.ec == std::errc();
    taken_ = static_cast<std::size_t>(result.ptr - begin_);
    return value;
  }
  void expect(char c) { good_ = good_ && next() == c; }
  /// Takes one of two letters; true for the first.
  bool flag(char yes, char no) {
    const char c = next();
    good_ = good_ && (c == yes || c == no);
    return c == yes;
  }
  /// What is left, behind blanks.
  std::pair<char*, char*> rest() const {
    return {std::find_if(at(), end_, [](char c) { return c != ' '; }), end_};
  }
  bool good() const { return good_; }

 private:
  char* at() const { return begin_ + taken_; }
  char next() { return at() < end_ ? begin_[taken_++] : '\0'; }

  char* begin_;
  char* end_;
  std::size_t taken_ = 0;
  bool good_ = true;
};

/// Converts \012, which the kernel writes for a line end in a name, back in place.
std::string_view unescape(char* begin, char* end) {
  constexpr std::string_view escape = "\\012";
  char* to = firstOf('\\', begin, end);
  for (char* from = to; from != end; ++to) {
    const bool lineEnd = std::string_view(from, end).starts_with(escape);
    *to = lineEnd ? '\n' : *from;
    from += lineEnd ? escape.size() : 1;
  }
  return {begin, to};
}

MappingKind kindOf(std::string_view path) {
  if (path.empty()) return MappingKind::anonymous;
  if (path.front() != '[') return MappingKind::file;
  if (path == "[heap]") return MappingKind::heap;
  if (path == "[stack]") return MappingKind::stack;
  return path == "[vdso]" ? MappingKind::vdso : MappingKind::other;
}

std::optional<Mapping> parseLine(char* begin, char* end) {
  Line line(begin, end);
  Mapping mapping;
  mapping.begin = line.number<std::uintptr_t>(16);
  line.expect('-');
  mapping.end = line.number<std::uintptr_t>(16);
  line.expect(' ');
  mapping.readable = line.flag('r', '-');
  mapping.writable = line.flag('w', '-');
  mapping.executable = line.flag('x', '-');
  mapping.shared = line.flag('s', 'p');
  line.expect(' ');
  mapping.offset = line.number<std::uint64_t>(16);
  line.expect(' ');
  const auto major = line.number<unsigned>(16);
  line.expect(':');
  mapping.device = makedev(major, line.number<unsigned>(16));
  line.expect(' ');
  mapping.inode = line.number<ino_t>(10);
  if (!line.good() || mapping.begin >= mapping.end) return std::nullopt;
  const auto [pathBegin, pathEnd] = line.rest();
  mapping.path = unescape(pathBegin, pathEnd);
  mapping.kind = kindOf(mapping.path);
  constexpr std::string_view deleted = " (deleted)";
  mapping.deleted = mapping.kind == MappingKind::file && mapping.path.ends_with(deleted);
  if (mapping.deleted) mapping.path.remove_suffix(deleted.size());
  return mapping;
}

}  // namespace

Mappings Mappings::parse(String text) {
  const auto kept = std::make_shared<String>(std::move(text));
  Mappings map;
  map.text_ = kept;
  char* const end = kept->data() + kept->size();
  map.mappings_.reserve(static_cast<std::size_t>(std::count(kept->data(), end, '\n')));
  std::uintptr_t last = 0;
  for (char* at = kept->data(); at != end;) {
    char* const lineEnd = firstOf('\n', at, end);
    const auto mapping = parseLine(at, lineEnd);
    if (!mapping || mapping->begin < last) {
      RuntimeException::throwException("cannot understand the mapping \"" + String(at, lineEnd) +
                                       "\"");
    }
    last = mapping->begin;
    map.mappings_.push_back(*mapping);
    at = lineEnd == end ? end : lineEnd + 1;
  }
  return map;
}

std::optional<Mappings> Mappings::of(const Process& process) {
  auto text = Impl::readOf(process, "maps");
  return text ? std::optional(parse(*std::move(text))) : std::nullopt;
}

Mappings Mappings::self() {
  auto map = of(Process::self());
  if (!map) RuntimeException::throwException("cannot find the own memory map in /proc");
  return *std::move(map);
}

const Mapping* Mappings::find(std::uintptr_t address) const {
  const auto behind =
      std::upper_bound(mappings_.begin(), mappings_.end(), address,
                       [](std::uintptr_t wanted, const Mapping& m) { return wanted < m.begin; });
  if (behind == mappings_.begin()) return nullptr;
  const auto& mapping = *std::prev(behind);
  return address < mapping.end ? &mapping : nullptr;
}

}  // namespace Tarvo
