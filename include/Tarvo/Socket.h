#ifndef TARVO_SOCKET_H
#define TARVO_SOCKET_H

/// Sockets in other network namespaces, and what a socket still has to send.
///
///     const int fd = Tarvo::Util::socketInNamespace("blue", AF_INET, SOCK_STREAM, 0);
///     Tarvo::Util::sendBufferSizeIs(fd, 1 << 20);
///     ...
///     if (Tarvo::Util::unsentBytes(fd) == 0) everythingArrived();
///
/// Each comes in two forms. The one without `error` throws RuntimeException with the reason. The
/// one with `error` sets it, to nothing when all went well, and then returns -1 on failure. All may
/// be called from any thread.

#include <system_error>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo::Util {

/// Makes a socket, as socket(2) does, inside the network namespace /run/netns/`name`. It belongs to
/// the caller, is close-on-exec, and stays in that namespace. A short-lived thread enters the
/// namespace for it, so the caller's own never changes, whatever fails. Needs CAP_SYS_ADMIN. A name
/// that is empty, "." or "..", or holds a slash or a zero byte, is refused as an invalid argument.
TARVO_EXPORT int socketInNamespace(const String& name, int domain, int type, int protocol);
TARVO_EXPORT int socketInNamespace(const String& name, int domain, int type, int protocol,
                                   std::error_code& error);

/// Sets the size of the send buffer, in bytes, and returns the size that results: the kernel has a
/// least and a greatest one. The greatest (net.core.wmem_max) does not bind who has CAP_NET_ADMIN.
/// For its own bookkeeping the kernel reserves as much again, which is not counted here. From then
/// on the kernel does not adapt the size by itself. A negative size is refused.
TARVO_EXPORT int sendBufferSizeIs(int fd, int bytes);
TARVO_EXPORT int sendBufferSizeIs(int fd, int bytes, std::error_code& error);
TARVO_EXPORT int sendBufferSize(int fd);
TARVO_EXPORT int sendBufferSize(int fd, std::error_code& error);

/// What was written to the socket and has not left it, in bytes. TCP: what the other side's kernel
/// has not acknowledged. UDP and Unix sockets: the memory of what is not yet sent, or of what the
/// receiver has not yet read, with the kernel's overhead; 0 when there is nothing.
TARVO_EXPORT int unsentBytes(int fd);
TARVO_EXPORT int unsentBytes(int fd, std::error_code& error);

}  // namespace Tarvo::Util

#endif
