#include "service/ChildStreams.h"

#include <fcntl.h>
#include <fmt/format.h>

#include "foundation/OpenFile.h"
#include "util/Failed.h"

namespace Tarvo {

namespace {

constexpr std::array<std::string_view, 3> names{"input", "output", "errors"};

int aboveStandard(int fd) { return fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1); }

void raise(Impl::OwnedFd& fd) {
  if (fd.get() <= STDERR_FILENO) fd = Impl::OwnedFd(aboveStandard(fd.get()));
}

void check(bool good, std::string_view verb, std::string_view name) {
  if (!good) Impl::throwOnError(verb, name, Impl::errorCode(errno));
}

}  // namespace

void Impl::checkPassable(const String& text) {
  if (text.find('\0') != String::npos) throwOnError("pass on", text, errorCode(EINVAL));
}

ChildStream ChildStream::null() {
  ChildStream stream;
  stream.kind_ = Kind::null;
  return stream;
}

ChildStream ChildStream::file(String path, Opening opening) {
  ChildStream stream;
  stream.kind_ = Kind::file;
  stream.path_ = std::move(path);
  stream.opening_ = opening;
  return stream;
}

ChildStream ChildStream::descriptor(int fd) {
  ChildStream stream;
  stream.kind_ = Kind::descriptor;
  stream.fd_ = fd;
  return stream;
}

ChildStream ChildStream::pipe() {
  ChildStream stream;
  stream.kind_ = Kind::pipe;
  return stream;
}

ChildStreams::ChildStreams(const ChildCommand& command) {
  open(STDIN_FILENO, command.in);
  open(STDOUT_FILENO, command.out);
  open(STDERR_FILENO, command.err);
}

void ChildStreams::open(unsigned number, const ChildStream& stream) {
  switch (stream.kind_) {
    case ChildStream::Kind::inherited:
      return;
    case ChildStream::Kind::null:
      return openFile(number, "/dev/null", 0);
    case ChildStream::Kind::file:
      return openFile(number, stream.path_,
                      O_CREAT | (stream.opening_ == ChildStream::append ? O_APPEND : O_TRUNC));
    case ChildStream::Kind::descriptor:
      childEnds_[number] = Impl::OwnedFd(aboveStandard(stream.fd_));
      return check(bool(childEnds_[number]), "copy descriptor", fmt::to_string(stream.fd_));
    case ChildStream::Kind::pipe:
      return openPipe(number);
  }
}

void ChildStreams::openFile(unsigned number, const String& path, int outputFlags) {
  Impl::checkPassable(path);
  const int flags = number == STDIN_FILENO ? O_RDONLY : O_WRONLY | outputFlags;
  childEnds_[number] = Impl::OwnedFd(Impl::openFile(path.c_str(), flags, 0666));
  check(bool(childEnds_[number]), "open", path);
}

void ChildStreams::openPipe(unsigned number) {
  int ends[2] = {-1, -1};
  check(pipe2(ends, O_CLOEXEC) == 0, "make a pipe for", names[number]);
  const bool input = number == STDIN_FILENO;
  childEnds_[number] = Impl::OwnedFd(ends[input ? 0 : 1]);
  parentEnds_[number] = Impl::OwnedFd(ends[input ? 1 : 0]);
  for (auto* end : {&childEnds_[number], &parentEnds_[number]}) {
    raise(*end);
    check(bool(*end), "make a pipe for", names[number]);
  }
  check(fcntl(parentEnds_[number].get(), F_SETFL, O_NONBLOCK) == 0, "make a pipe for",
        names[number]);
}

}  // namespace Tarvo
