#include "LineCount.h"

void LineCount::add(std::string_view piece) {
  bytes_ += piece.size();
  for (const char c : piece) {
    if (c == '\n') ++lines_;
    if (c == ' ' || (c >= '\t' && c <= '\r')) {
      inWord_ = false;
    } else if (c > ' ' && c < '\x7f') {
      words_ += inWord_ ? 0 : 1;
      inWord_ = true;
    }
  }
}
