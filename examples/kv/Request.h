#ifndef TARVO_EXAMPLES_KV_REQUEST_H
#define TARVO_EXAMPLES_KV_REQUEST_H

/// What clients say:
///
///     SET key length [ttl-ms]\n<length bytes>\n    OK
///     GET key\n                                    VALUE length\n<length bytes>, or NONE
///     DEL key\n                                    OK, or NONE
///     COUNT\n                                      COUNT keys bytes
///     BACKGROUND on|off\n                          OK
///
/// Each answer ends with a line end. Anything else is answered with "ERROR text", after which the
/// connection is closed. Keys are printable and without blanks, values are any bytes. Requests may
/// be sent without waiting for the answers, which come in the same order.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kv {

struct Request {
  enum class Verb : std::uint8_t { set, get, del, count, background };

  static constexpr std::size_t lineLimit = 1024;
  static constexpr std::size_t valueLimit = 512 << 10;

  Verb verb;
  std::string_view key;
  std::string_view value;
  double timeToLive;  // seconds, infinity for ever
  bool on;
  std::size_t size;  // of the whole request, in bytes
};

struct Parsed {
  enum class Outcome : std::uint8_t { whole, incomplete, malformed };

  Outcome outcome;
  Request request{};       // when it is whole
  const char* fault = "";  // when it is malformed
};

/// Reads one request from the beginning of `input`, into which its parts are views.
Parsed parseRequest(std::string_view input);

}  // namespace kv

#endif
