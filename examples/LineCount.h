#ifndef TARVO_EXAMPLES_LINECOUNT_H
#define TARVO_EXAMPLES_LINECOUNT_H

#include <cstdint>
#include <string_view>

/// Lines, words and bytes of a stream of text, counted piece by piece as `wc` does in the C locale:
/// a word is what stands between blanks and holds a printable character.
class LineCount {
 public:
  void add(std::string_view piece);

  std::uint64_t lines() const { return lines_; }
  std::uint64_t words() const { return words_; }
  std::uint64_t bytes() const { return bytes_; }

 private:
  std::uint64_t lines_ = 0;
  std::uint64_t words_ = 0;
  std::uint64_t bytes_ = 0;
  bool inWord_ = false;
};

#endif
