#ifndef TARVO_DISPLAYPOINTER_H
#define TARVO_DISPLAYPOINTER_H

#include <iosfwd>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// A pointer for display: "NULL", or "0x" and the address in hexadecimal, padded with zeros to ten
/// characters in all. Output ignores the stream's flags, fill and width, and does not change them.
class TARVO_EXPORT DisplayPointer {
 public:
  explicit DisplayPointer(const void* pointer) : pointer_(pointer) {}

  String toString() const;

  friend TARVO_EXPORT std::ostream& operator<<(std::ostream& out, const DisplayPointer& display);

 private:
  const void* pointer_;
};

namespace Impl {

/// Prints the characters [begin, end) of a text. An empty or reversed range prints nothing.
class TARVO_EXPORT DisplaySubStringBase {
 public:
  static void addToStream(std::ostream& out, const char* text, unsigned begin, unsigned end);
  static String toString(const char* text, unsigned begin, unsigned end);
};

}  // namespace Impl
}  // namespace Tarvo

#endif
