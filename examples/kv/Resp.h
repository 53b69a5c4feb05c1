#ifndef TARVO_EXAMPLES_KV_RESP_H
#define TARVO_EXAMPLES_KV_RESP_H

/// The words that services and clients exchange, as RESP2 has them:
///
///     *2\r\n$3\r\nGET\r\n$3\r\nkey\r\n    a request: an array of bulks, which are any bytes
///     GET key\r\n                         the same as a line, for people
///     +OK\r\n   -ERR why\r\n   :42\r\n   $5\r\nvalue\r\n   $-1\r\n    answers; the last one is
///     "none"
///
/// Requests may be sent without waiting for the answers, which come in the same order.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kv {

using Words = std::vector<std::string_view>;

/// The words of one request, found at the beginning of an input.
struct Parsed {
  static constexpr std::size_t lineLimit = 64 << 10;
  static constexpr std::size_t wordLimit = 512 << 10;  // bytes of a word
  static constexpr std::size_t countLimit = 16 << 10;  // words of a request
  static constexpr std::size_t sumLimit = 1 << 20;     // bytes of all its words

  enum class Outcome : std::uint8_t { whole, incomplete, malformed };

  Outcome outcome;
  std::size_t size = 0;    // of the request, when it is whole
  const char* fault = "";  // when it is malformed
};

/// Fills `words` with views into the input; none for an empty request, which has no answer.
Parsed parseRequest(std::string_view input, Words& words);

struct Answer {
  char type;              // the first letter
  std::string_view text;  // of the line, or the bytes of a bulk
  bool none;
  std::size_t size;  // of the whole answer

  bool is(char wantedType, std::string_view wanted) const {
    return type == wantedType && !none && text == wanted;
  }
};

/// The answer at the beginning of the input; nothing while it is incomplete. Arrays are not taken.
std::optional<Answer> parseAnswer(std::string_view input);

/// The whole of a text that is a number.
std::optional<std::int64_t> numberOf(std::string_view text);

/// Appends to a text in the form above.
class Writer {
 public:
  explicit Writer(std::string& out) : out_(out) {}

  void simple(std::string_view text) { line('+', text); }
  void error(std::string_view text) { line('-', text); }
  void integer(std::integral auto value) { number(':', static_cast<std::int64_t>(value)); }
  void bulk(std::string_view bytes);
  void none() { line('$', "-1"); }
  void array(std::size_t count) { number('*', static_cast<std::int64_t>(count)); }
  void request(std::initializer_list<std::string_view> words);

  std::size_t size() const { return out_.size(); }
  /// Takes back what is behind that.
  void sizeIs(std::size_t size) { out_.resize(size); }

 private:
  void line(char type, std::string_view text);
  void number(char type, std::int64_t number);

  std::string& out_;
};

}  // namespace kv

#endif
