#ifndef TARVO_FDTOSTREAM_H
#define TARVO_FDTOSTREAM_H

#include <array>
#include <ostream>
#include <streambuf>

#include "Tarvo/Export.h"

namespace Tarvo {

/// An output stream over a file descriptor, which stays the caller's and is not closed. The buffer
/// is written at a flush, when it is full, and by the destructor.
///
///     Tarvo::FdToStream out(fd);
///     out << "ready" << std::endl;
///
/// On a non-blocking descriptor whose reader is slow, each write waits up to a second. When a write
/// fails, the stream's bad bit is set and the rest of the buffer is dropped. A reader that is gone
/// raises no SIGPIPE.
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
