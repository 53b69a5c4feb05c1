#ifndef TARVO_DETAIL_TIMEOUTRECORD_H
#define TARVO_DETAIL_TIMEOUTRECORD_H

#include <cstdint>

#include "Tarvo/Export.h"

namespace Tarvo::Impl {

struct TimeoutLink {
  TimeoutLink* next_ = nullptr;
  TimeoutLink* previous_ = nullptr;
};

/// The links of a timer in one list of the timing wheel. A base class of the timer, so that linking
/// allocates nothing.
struct TimeoutRecord : TimeoutLink {
  /// Expiries are absolute ticks.
  static constexpr std::uint32_t absolute = 2;

  std::uint64_t expires_ = 0;       // a tick while it is in a list, otherwise free for its owner
  std::uint32_t flags_ = absolute;  // the upper bits are free for its owner
  std::uint32_t wheel_ = 0;         // number of the wheel that last held it
};

/// A first-in, first-out list from which any member can be removed in constant time.
class TARVO_EXPORT TimeoutList {
 public:
  TimeoutList() = default;
  TimeoutList(const TimeoutList&) = delete;
  TimeoutList& operator=(const TimeoutList&) = delete;

  bool empty() const { return ends_.next_ == &ends_; }
  /// Null without one.
  TimeoutRecord* first() const {
    return empty() ? nullptr : static_cast<TimeoutRecord*>(ends_.next_);
  }
  /// REQUIRES: the record is in no list.
  void append(TimeoutRecord& record);
  /// REQUIRES: the record is in a list.
  static void remove(TimeoutRecord& record);

 private:
  TimeoutLink ends_{&ends_, &ends_};  // closes the ring of the members
};

inline void TimeoutList::append(TimeoutRecord& record) {
  record.next_ = &ends_;
  record.previous_ = ends_.previous_;
  ends_.previous_->next_ = &record;
  ends_.previous_ = &record;
}

inline void TimeoutList::remove(TimeoutRecord& record) {
  record.previous_->next_ = record.next_;
  record.next_->previous_ = record.previous_;
}

}  // namespace Tarvo::Impl

#endif
