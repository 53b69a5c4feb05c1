#include "Resp.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace kv {

namespace {

using Outcome = Parsed::Outcome;
using std::string_view;

constexpr string_view lineEnd = "\r\n";

Parsed malformed(const char* fault) { return {Outcome::malformed, 0, fault}; }

/// A line that begins with a letter and is a number up to `most` behind it; taken off `rest` when
/// it is whole.
Parsed parseHead(string_view& rest, char letter, std::int64_t least, std::size_t most,
                 const char* fault, std::size_t& number) {
  constexpr std::size_t headLimit = 32;
  if (rest.empty()) return {Outcome::incomplete};
  if (rest[0] != letter) return malformed("Protocol error: expected '$'");
  std::int64_t value = 0;
  const auto [stop, error] = std::from_chars(rest.data() + 1, rest.data() + rest.size(), value);
  const auto size = static_cast<std::size_t>(stop - rest.data());
  if (!rest.substr(size).starts_with(lineEnd)) {
    const bool mayBecome = rest.size() < headLimit && rest.find(lineEnd) == string_view::npos;
    return mayBecome ? Parsed{Outcome::incomplete} : malformed(fault);
  }
  const bool isNumber = error == std::errc();
  if (!isNumber || value < least || value > static_cast<std::int64_t>(most))
    return malformed(fault);
  number = static_cast<std::size_t>(std::max<std::int64_t>(value, 0));
  rest.remove_prefix(size + lineEnd.size());
  return {Outcome::whole};
}

Parsed parseArray(string_view input, Words& words) {
  string_view rest = input;
  std::size_t count = 0;
  std::size_t sum = 0;
  Parsed parsed = parseHead(rest, '*', -1, Parsed::countLimit,
                            "Protocol error: invalid multibulk length", count);
  while (parsed.outcome == Outcome::whole && words.size() < count) {
    std::size_t size = 0;
    parsed =
        parseHead(rest, '$', 0, Parsed::wordLimit, "Protocol error: invalid bulk length", size);
    if (parsed.outcome != Outcome::whole) break;
    sum += size;
    if (sum > Parsed::sumLimit) return malformed("Protocol error: too big request");
    if (rest.size() < size + lineEnd.size()) return {Outcome::incomplete};
    if (rest.substr(size, lineEnd.size()) != lineEnd) {
      return malformed("Protocol error: expected a line end after a bulk");
    }
    words.push_back(rest.substr(0, size));
    rest.remove_prefix(size + lineEnd.size());
  }
  parsed.size = input.size() - rest.size();
  return parsed;
}

Parsed parseLine(string_view input, Words& words) {
  const std::size_t end = input.substr(0, Parsed::lineLimit).find('\n');
  if (end == string_view::npos) {
    if (input.size() < Parsed::lineLimit) return {Outcome::incomplete};
    return malformed("Protocol error: too big inline request");
  }
  constexpr string_view blanks = " \t\r";
  const string_view line = input.substr(0, end);
  for (std::size_t at = line.find_first_not_of(blanks); at != string_view::npos;) {
    const std::size_t wordEnd = std::min(line.find_first_of(blanks, at), line.size());
    words.push_back(line.substr(at, wordEnd - at));
    at = line.find_first_not_of(blanks, wordEnd);
  }
  return {Outcome::whole, end + 1};
}

}  // namespace

std::optional<std::int64_t> numberOf(string_view text) {
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || rest != end) return std::nullopt;
  return value;
}

Parsed parseRequest(string_view input, Words& words) {
  words.clear();
  if (input.empty()) return {Outcome::incomplete};
  return input[0] == '*' ? parseArray(input, words) : parseLine(input, words);
}

std::optional<Answer> parseAnswer(string_view input) {
  const std::size_t end = input.find(lineEnd);
  if (end == string_view::npos || end == 0) return std::nullopt;
  const string_view text = input.substr(1, end - 1);
  const std::size_t head = end + lineEnd.size();
  if (input[0] != '$') return Answer{input[0], text, false, head};
  if (text == "-1") return Answer{'$', {}, true, head};
  const auto size = static_cast<std::size_t>(numberOf(text).value_or(0));
  if (input.size() < head + size + lineEnd.size()) return std::nullopt;
  return Answer{'$', input.substr(head, size), false, head + size + lineEnd.size()};
}

void Writer::line(char type, string_view text) {
  out_ += type;
  out_.append(text).append(lineEnd);
}

void Writer::number(char type, std::int64_t number) {
  std::array<char, 24> digits;
  const char* end = std::to_chars(digits.begin(), digits.end(), number).ptr;
  line(type, {digits.begin(), end});
}

void Writer::bulk(string_view bytes) {
  number('$', static_cast<std::int64_t>(bytes.size()));
  out_.append(bytes).append(lineEnd);
}

void Writer::request(std::initializer_list<string_view> words) {
  array(words.size());
  for (const string_view word : words) bulk(word);
}

}  // namespace kv
