#ifndef TARVO_SRC_FOUNDATION_UNCANCELLED_H
#define TARVO_SRC_FOUNDATION_UNCANCELLED_H

#include <pthread.h>

namespace Tarvo::Impl {

/// Defers a cancellation of the thread until after the scope. Used where a cancellation point may
/// not unwind: in destructors, and where a message must be written completely.
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
