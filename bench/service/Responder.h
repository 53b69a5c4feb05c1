#ifndef TARVO_BENCH_SERVICE_RESPONDER_H
#define TARVO_BENCH_SERVICE_RESPONDER_H

/// What the HTTP server does on every loop: sockets, parsing and answers.

#include <functional>

namespace bench {

/// Serves a descriptor that can be read; false when nothing more is to come.
using Readable = std::function<bool()>;

/// Calls `readable` whenever the descriptor can be read. When that returns false, the loop forgets
/// the descriptor, closes it and destroys `readable`.
using Watch = void (*)(int fd, Readable readable);

/// Answers every GET on any free port of the loopback interface, and prints the port.
void respond(Watch watch);

}  // namespace bench

#endif
