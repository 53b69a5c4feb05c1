#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "Tarvo/Util.h"
#include "util/Failed.h"
#include "util/OwnedFd.h"
#include "util/ReadFile.h"

namespace Tarvo {

namespace {

constexpr std::size_t firstRead = 16384;  // for files that report size 0

int openForReading(int folder, const char* path) {
  int fd = 0;
  do {
    fd = openat(folder, path, O_RDONLY | O_CLOEXEC | O_NOCTTY);
  } while (fd < 0 && errno == EINTR);
  return fd;
}

}  // namespace

String Impl::failureText(std::string_view verb, std::string_view name, int error) {
  String text = "cannot ";
  text.append(verb).append(" ");
  for (const char c : name) {
    if (c == '\0') {
      text += "\\0";
    } else {
      text += c;
    }
  }
  return text + ": " + errorCode(error).message();
}

int Impl::readFile(int folder, const char* path, std::size_t limit, String& contents) {
  contents.clear();
  limit = std::min(limit, contents.max_size() - 1);
  const OwnedFd file(openForReading(folder, path));
  if (!file) return errno;
  struct stat status;
  if (fstat(file.get(), &status) != 0) return errno;
  const auto claimed = S_ISREG(status.st_mode) ? static_cast<std::size_t>(status.st_size) : 0;
  if (claimed > limit) return EFBIG;
  String text;
  // One byte more than the size or the limit: only a read beyond the end shows that it is the end.
  text.resize(std::min(limit, claimed > 0 ? claimed : firstRead) + 1);
  std::size_t filled = 0;
  for (;;) {
    const ssize_t got = read(file.get(), text.data() + filled, text.size() - filled);
    if (got == 0) break;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    filled += static_cast<std::size_t>(got);
    if (filled > limit) return EFBIG;
    if (filled == text.size()) text.resize(std::min(limit, 2 * filled) + 1);
  }
  text.resize(filled);
  contents = std::move(text);
  return 0;
}

namespace Util {

std::uint64_t fileSize(const String& path, std::error_code& error) {
  struct stat status {};
  const bool named = path.find('\0') == String::npos;
  const int result = named ? stat(path.c_str(), &status) : -1;
  error = Impl::errorCode(result == 0 ? 0 : named ? errno : EINVAL);
  return static_cast<std::uint64_t>(status.st_size);
}

std::uint64_t fileSize(const String& path) {
  std::error_code error;
  const auto size = fileSize(path, error);
  Impl::throwOnError("get the size of", path, error);
  return size;
}

String fileRead(const String& path, std::size_t limit, std::error_code& error) {
  String contents;
  const bool named = path.find('\0') == String::npos;
  error = Impl::errorCode(named ? Impl::readFile(AT_FDCWD, path.c_str(), limit, contents) : EINVAL);
  return contents;
}

String fileRead(const String& path, std::size_t limit) {
  std::error_code error;
  String contents = fileRead(path, limit, error);
  Impl::throwOnError("read", path, error);
  return contents;
}

}  // namespace Util

}  // namespace Tarvo
