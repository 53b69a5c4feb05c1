#include "util/KernelTables.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "util/ProcFolder.h"

namespace Tarvo::Impl {

namespace {

constexpr InternetAddress anyV6{};
constexpr InternetAddress anyV4{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

/// Takes words from the front of a line. Leading blanks are skipped.
class Words {
 public:
  explicit Words(std::string_view line) : line_(line) {}

  std::string_view next(std::string_view separators = " ") {
    line_.remove_prefix(std::min(line_.find_first_not_of(" \t"), line_.size()));
    const auto word = line_.substr(0, line_.find_first_of(separators));
    line_.remove_prefix(std::min(word.size() + 1, line_.size()));
    return word;
  }
  template <typename Number>
  Number number(int base, std::string_view separators = " ") {
    const auto word = next(separators);
    Number value = 0;
    const auto* end = word.data() + word.size();
    const auto result = std::from_chars(word.data(), end, value, base);
    good_ = good_ && result.ec == std::errc() && result.ptr == end;
    return value;
  }
  std::string_view rest() const { return line_; }
  bool good() const { return good_; }

 private:
  std::string_view line_;
  bool good_ = true;
};

/// Parses an address from /proc/net: eight hexadecimal digits for each four bytes, which the kernel
/// prints as an integer in host byte order.
std::optional<InternetAddress> parseHexAddress(std::string_view digits) {
  InternetAddress address = anyV4;
  if (digits.size() != 8 && digits.size() != 32) return std::nullopt;
  auto* to = address.data() + (digits.size() == 8 ? 12 : 0);
  for (; !digits.empty(); digits.remove_prefix(8), to += 4) {
    std::uint32_t word = 0;
    const auto* end = digits.data() + 8;
    if (std::from_chars(digits.data(), end, word, 16).ptr != end) return std::nullopt;
    std::memcpy(to, &word, sizeof word);
  }
  return address;
}

bool isV4(const InternetAddress& address) {
  return std::equal(anyV4.begin(), anyV4.begin() + 12, address.begin());
}

}  // namespace

bool TableReader::open(const char* path) {
  path_ = path;
  text_.clear();
  taken_ = 0;
  file_ = OwnedFd(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file_ && !isGone(errno)) failToRead(path, errno);
  return static_cast<bool>(file_);
}

std::optional<std::string_view> TableReader::next() {
  auto end = text_.find('\n', taken_);
  while (end == String::npos) {
    text_.erase(0, std::exchange(taken_, 0));
    const auto kept = text_.size();
    constexpr std::size_t portion = 4096;  // the kernel returns at most a page per read
    text_.resize(kept + portion);
    const ssize_t got = read(file_.get(), text_.data() + kept, portion);
    const int error = errno;
    text_.resize(kept + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    if (got < 0 && error != EINTR) failToRead(path_, error);
    if (got == 0) return std::nullopt;
    end = text_.find('\n', kept);
  }
  const auto line = std::string_view(text_).substr(taken_, end - taken_);
  taken_ = end + 1;
  return line;
}

std::optional<InternetAddress> parseAddress(const String& text) {
  InternetAddress address = anyV4;
  if (text.find('\0') != String::npos) return std::nullopt;
  if (inet_pton(AF_INET, text.c_str(), address.data() + 12) == 1) return address;
  if (inet_pton(AF_INET6, text.c_str(), address.data()) == 1) return address;
  return std::nullopt;
}

bool InternetSocket::servesAddress(const InternetAddress& wanted) const {
  return address == wanted || address == anyV6 || (address == anyV4 && isV4(wanted));
}

std::optional<InternetSocket> parseInternetSocket(std::string_view line) {
  Words words(line);
  words.next();  // the entry's number
  const auto address = parseHexAddress(words.next(":"));
  if (!address) return std::nullopt;
  InternetSocket socket{};
  socket.address = *address;
  socket.port = words.number<std::uint16_t>(16);
  words.next();  // the other side
  socket.state = words.number<unsigned>(16);
  for (int skipped = 0; skipped < 5; ++skipped) words.next();  // queues, timers, user
  socket.inode = words.number<ino_t>(10);
  return words.good() ? std::optional(socket) : std::nullopt;
}

std::optional<UnixSocket> parseUnixSocket(std::string_view line) {
  constexpr unsigned accepts = 0x10000;
  Words words(line);
  for (int skipped = 0; skipped < 3; ++skipped) words.next();  // address, references, protocol
  UnixSocket socket{};
  socket.listening = (words.number<unsigned>(16) & accepts) != 0;
  for (int skipped = 0; skipped < 2; ++skipped) words.next();  // type and state
  socket.inode = words.number<ino_t>(10);
  socket.path = words.rest();
  return words.good() ? std::optional(socket) : std::nullopt;
}

std::optional<FileLockEntry> parseFileLock(std::string_view line) {
  Words words(line);
  words.next();  // the entry's number
  const auto kind = words.next();
  // A waiting process's line has "->" here.
  if (kind != "POSIX" && kind != "FLOCK" && kind != "OFDLCK") return std::nullopt;
  for (int skipped = 0; skipped < 2; ++skipped) words.next();
  FileLockEntry lock{};
  lock.pid = words.number<pid_t>(10);
  lock.major = words.number<unsigned>(16, ":");
  lock.minor = words.number<unsigned>(16, ":");
  lock.inode = words.number<ino_t>(10);
  return words.good() ? std::optional(lock) : std::nullopt;
}

}  // namespace Tarvo::Impl
