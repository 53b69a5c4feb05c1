#ifndef TARVO_SRC_FOUNDATION_UNCANCELLED_H
#define TARVO_SRC_FOUNDATION_UNCANCELLED_H

#include <pthread.h>

namespace Tarvo::Impl {

/// Puts a cancellation of the thread off to the end of the scope. What the library says about a
/// program is written whole, also from a destructor, which no cancellation may leave.
class Uncancelled {
 public:
  Uncancelled() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  Uncancelled(const Uncancelled&) = delete;
  Uncancelled& operator=(const Uncancelled&) = delete;
  ~Uncancelled() { pthread_setcancelstate(before_, nullptr); }

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace Tarvo::Impl

#endif
