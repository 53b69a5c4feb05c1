#include "Request.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <limits>
#include <optional>

namespace kv {

namespace {

using Outcome = Parsed::Outcome;

/// The words of a line, between single blanks.
struct Words {
  static constexpr std::size_t limit = 4;

  explicit Words(std::string_view line) {
    while (true) {
      const std::size_t end = line.find(' ');
      if (count < limit) words[count] = line.substr(0, end);
      ++count;
      if (end == std::string_view::npos) return;
      line.remove_prefix(end + 1);
    }
  }
  bool are(std::string_view verb, std::size_t fewest, std::size_t most) const {
    return words[0] == verb && count >= fewest && count <= most;
  }

  std::array<std::string_view, limit> words;
  std::size_t count = 0;
};

std::optional<std::uint64_t> number(std::string_view digits) {
  std::uint64_t value = 0;
  const char* end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || rest != end) return std::nullopt;
  return value;
}

bool isKey(std::string_view word) {
  return !word.empty() && std::ranges::all_of(word, [](char c) {
    return static_cast<unsigned char>(c) > ' ' && c != 0x7f;
  });
}

Parsed malformed(const char* fault) { return {.outcome = Outcome::malformed, .fault = fault}; }

Parsed parseSet(const Words& words, std::string_view input, std::size_t lineSize) {
  const auto length = number(words.words[2]);
  if (!length) return malformed("the length is no number");
  if (*length > Request::valueLimit) return malformed("the value is too long");
  double timeToLive = std::numeric_limits<double>::infinity();
  if (words.count == 4) {
    const auto milliseconds = number(words.words[3]);
    if (!milliseconds || *milliseconds == 0) return malformed("the time to live is no number");
    timeToLive = static_cast<double>(*milliseconds) / 1e3;
  }
  const std::size_t size = lineSize + *length + 1;
  if (input.size() < size) return {.outcome = Outcome::incomplete};
  if (input[size - 1] != '\n') return malformed("no line end after the value");
  Request request{.verb = Request::Verb::set,
                  .key = words.words[1],
                  .value = {},
                  .timeToLive = timeToLive,
                  .on = false,
                  .size = size};
  request.value = input.substr(lineSize, *length);
  return {.outcome = Outcome::whole, .request = request};
}

Parsed parseLine(const Words& words, std::string_view input, std::size_t lineSize) {
  Request request{};
  request.size = lineSize;
  if (words.are("COUNT", 1, 1)) {
    request.verb = Request::Verb::count;
  } else if (words.are("BACKGROUND", 2, 2)) {
    request.verb = Request::Verb::background;
    request.on = words.words[1] == "on";
    if (!request.on && words.words[1] != "off") return malformed("on or off?");
  } else if (words.are("GET", 2, 2) || words.are("DEL", 2, 2) || words.are("SET", 3, 4)) {
    if (!isKey(words.words[1])) return malformed("not a key");
    if (words.words[0] == "SET") return parseSet(words, input, lineSize);
    request.verb = words.words[0] == "GET" ? Request::Verb::get : Request::Verb::del;
    request.key = words.words[1];
  } else {
    return malformed("not a request");
  }
  return {.outcome = Outcome::whole, .request = request};
}

}  // namespace

Parsed parseRequest(std::string_view input) {
  const std::size_t end = input.substr(0, Request::lineLimit).find('\n');
  if (end != std::string_view::npos) return parseLine(Words(input.substr(0, end)), input, end + 1);
  if (input.size() >= Request::lineLimit) return malformed("the line is too long");
  return {.outcome = Outcome::incomplete};
}

}  // namespace kv
