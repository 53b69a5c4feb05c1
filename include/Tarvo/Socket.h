#ifndef TARVO_SOCKET_H
#define TARVO_SOCKET_H

/// Sockets in other network namespaces, send buffers, and the number of bytes still to be sent.
///
///     const int fd = Tarvo::Util::socketInNamespace("blue", AF_INET, SOCK_STREAM, 0);
///     Tarvo::Util::sendBufferSizeIs(fd, 1 << 20);
///     ...
///     if (Tarvo::Util::unsentBytes(fd) == 0) everythingArrived();
///
/// Each function has two forms. The one without `error` throws RuntimeException with the reason.
/// The one with `error` sets it, clears it on success, and returns -1 on failure. All may be called
/// from any thread.

#include <system_error>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo::Util {

/// Makes a socket, as socket(2) does, inside the network namespace /run/netns/`name`. It belongs to
/// the caller, is close-on-exec, and stays in that namespace. A short-lived thread enters the
/// namespace, so the caller's own namespace never changes, whatever fails. Needs CAP_SYS_ADMIN. A
/// name that is empty, "." or "..", or contains a slash or a zero byte, is an invalid argument.
TARVO_EXPORT int socketInNamespace(const String& name, int domain, int type, int protocol);
TARVO_EXPORT int socketInNamespace(const String& name, int domain, int type, int protocol,
                                   std::error_code& error);

/// Sets the size of the send buffer, in bytes, and returns the resulting size: the kernel has a
/// minimum and a maximum. The maximum (net.core.wmem_max) does not apply to a caller with
/// CAP_NET_ADMIN. The kernel doubles the size for its bookkeeping; that half is not counted here.
/// Afterwards the kernel no longer adapts the size by itself. A negative size is an invalid
/// argument.
TARVO_EXPORT int sendBufferSizeIs(int fd, int bytes);
TARVO_EXPORT int sendBufferSizeIs(int fd, int bytes, std::error_code& error);
TARVO_EXPORT int sendBufferSize(int fd);
TARVO_EXPORT int sendBufferSize(int fd, std::error_code& error);

/// The bytes that were written to the socket and have not left it. TCP: the bytes that the peer's
/// kernel has not acknowledged. UDP and Unix sockets: the memory of data that is not yet sent, or
/// not yet read by the receiver, including the kernel's overhead.
TARVO_EXPORT int unsentBytes(int fd);
TARVO_EXPORT int unsentBytes(int fd, std::error_code& error);

}  // namespace Tarvo::Util

#endif
