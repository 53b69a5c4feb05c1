#include "Tarvo/Socket.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "Tarvo/Fmt.h"
#include "foundation/Uncancelled.h"
#include "util/Failed.h"
#include "util/OwnedFd.h"

namespace Tarvo::Util {

namespace {

bool canBeNamespace(const String& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == String::npos &&
         name.find('\0') == String::npos;
}

struct Request {
  int space, domain, type, protocol;
  int fd = -1;
  int error = 0;
};

void* makeInside(void* argument) {
  auto& request = *static_cast<Request*>(argument);
  if (setns(request.space, CLONE_NEWNET) == 0) {
    request.fd = socket(request.domain, request.type | SOCK_CLOEXEC, request.protocol);
  }
  if (request.fd < 0) request.error = errno;
  return nullptr;
}

/// Runs the request on a new thread with all signals blocked; returns 0 or an errno.
int runAside(Request& request) {
  const Impl::Uncancelled whole;  // the thread writes to the request until it is joined
  sigset_t all;
  sigset_t old;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &old);
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, makeInside, &request);
  pthread_sigmask(SIG_SETMASK, &old, nullptr);
  if (error != 0) return error;
  pthread_join(thread, nullptr);
  return request.error;
}

/// Converts the result of a system call: `value`, or -1 with the error set.
int answer(int result, int value, std::error_code& error) {
  error = Impl::errorCode(result == 0 ? 0 : errno);
  return result == 0 ? value : -1;
}

}  // namespace

int socketInNamespace(const String& name, int domain, int type, int protocol,
                      std::error_code& error) {
  error = Impl::errorCode(EINVAL);
  if (!canBeNamespace(name)) return -1;
  const String path = "/run/netns/" + name;
  const Impl::OwnedFd space(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  Request request{space.get(), domain, type, protocol};
  error = Impl::errorCode(space ? runAside(request) : errno);
  return request.fd;
}

int socketInNamespace(const String& name, int domain, int type, int protocol) {
  std::error_code error;
  const int fd = socketInNamespace(name, domain, type, protocol, error);
  Impl::throwOnError("make a socket in network namespace", name, error);
  return fd;
}

int sendBufferSize(int fd, std::error_code& error) {
  int twice = 0;  // the kernel returns the size with its bookkeeping: twice what was set
  socklen_t length = sizeof twice;
  const int result = getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &twice, &length);
  return answer(result, twice / 2, error);
}

int sendBufferSize(int fd) {
  std::error_code error;
  const int size = sendBufferSize(fd, error);
  Impl::throwOnError("get the send buffer of descriptor", fmt::to_string(fd), error);
  return size;
}

int sendBufferSizeIs(int fd, int bytes, std::error_code& error) {
  error = Impl::errorCode(EINVAL);
  if (bytes < 0) return -1;
  // SO_SNDBUFFORCE may exceed the system's maximum, but needs CAP_NET_ADMIN.
  int result = setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes);
  if (result != 0 && errno == EPERM) {
    result = setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  }
  return result == 0 ? sendBufferSize(fd, error) : answer(result, -1, error);
}

int sendBufferSizeIs(int fd, int bytes) {
  std::error_code error;
  const int size = sendBufferSizeIs(fd, bytes, error);
  Impl::throwOnError(fmt::format("set the send buffer to {} bytes on descriptor", bytes),
                     fmt::to_string(fd), error);
  return size;
}

int unsentBytes(int fd, std::error_code& error) {
  int bytes = 0;
  const int result = ioctl(fd, SIOCOUTQ, &bytes);
  return answer(result, bytes, error);
}

int unsentBytes(int fd) {
  std::error_code error;
  const int bytes = unsentBytes(fd, error);
  Impl::throwOnError("get what is unsent of descriptor", fmt::to_string(fd), error);
  return bytes;
}

}  // namespace Tarvo::Util
