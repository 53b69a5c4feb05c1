#include "Tarvo/Util.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "util/UtilTrace.h"

namespace Tarvo::Util {

namespace {

/// The parent directory of a path; empty when the path has no directory part.
String parentOf(const String& path) {
  const auto name = path.find_last_of('/');
  if (name == String::npos) return {};
  const auto end = path.find_last_not_of('/', name);
  return end == String::npos ? String() : path.substr(0, end + 1);
}

}  // namespace

int mkpath(const String& path, mode_t mode) {
  const auto end = path.find_last_not_of('/');
  if (end == String::npos) {  // nothing but slashes, or nothing
    errno = EEXIST;
    return -1;
  }
  const String directory = path.substr(0, end + 1);
  // Try the last directory first: mkdir() of an existing ancestor might fail for want of rights.
  int result = mkdir(directory.c_str(), mode);
  if (result != 0 && errno == ENOENT) {
    const String parent = parentOf(directory);
    if (parent.empty() || (mkpath(parent, mode) != 0 && errno != EEXIST)) return -1;
    result = mkdir(directory.c_str(), mode);
  }
  const int error = errno;
  if (result == 0) {
    TARVO_TRACE(Impl::utilTrace, 5, "created {}", directory);
  } else {
    TARVO_TRACE(Impl::utilTrace, 9, "{}: {}", directory, std::strerror(error));
  }
  errno = error;
  return result;
}

String trimpath(const String& path) {
  String trimmed;
  for (std::size_t at = 0; at < path.size();) {
    const auto end = std::min(path.find('/', at), path.size());
    const auto name = std::string_view(path).substr(at, end - at);
    at = end + 1;
    if (name.empty() || name == ".") continue;
    if (!trimmed.empty() || path.front() == '/') trimmed += '/';
    trimmed += name;
  }
  if (!trimmed.empty() || path.empty()) return trimmed;
  return path.front() == '/' ? "/" : ".";
}

}  // namespace Tarvo::Util
