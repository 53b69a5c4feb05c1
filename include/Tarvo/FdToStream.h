#ifndef TARVO_FDTOSTREAM_H
#define TARVO_FDTOSTREAM_H

#include <array>
#include <ostream>
#include <streambuf>

#include "Tarvo/Export.h"

namespace Tarvo {

/// An output stream over a file descriptor, which stays the caller's and is not closed. What was
/// written leaves with a flush, when the buffer is full, and at the end.
///
///     Tarvo::FdToStream out(fd);
///     out << "ready" << std::endl;
///
/// Waits up to a second at a time for a non-blocking descriptor whose reader is slow. A failed
/// write sets the stream's bad bit, and what could not be written is dropped; a reader that is gone
/// raises no signal.
class TARVO_EXPORT FdToStream : public std::ostream {
 public:
  explicit FdToStream(int fd);
  FdToStream(const FdToStream&) = delete;
  FdToStream& operator=(const FdToStream&) = delete;
  ~FdToStream() override;

 private:
  class Buffer : public std::streambuf {
   public:
    explicit Buffer(int fd);
    ~Buffer() override;

   private:
    int_type overflow(int_type c) override;
    int sync() override;
    void reset() { setp(bytes_.data(), bytes_.data() + bytes_.size()); }

    int fd_;
    std::array<char, 4096> bytes_;
  };

  Buffer buffer_;
};

}  // namespace Tarvo

#endif
