#ifndef TARVO_TIMEOUTRECORD_H
#define TARVO_TIMEOUTRECORD_H

#include <cstdint>
#include <utility>

#include "Tarvo/Export.h"

namespace Tarvo::Impl {

class TimeoutList;

/// The links of a timer in one list, a slot of the timing wheel. A base class of the timer, so that
/// linking allocates nothing.
struct TimeoutRecord {
  /// Expiries are absolute ticks.
  static constexpr std::uint32_t absolute = 2;

  TimeoutRecord* next_ = nullptr;
  TimeoutRecord* previous_ = nullptr;
  TimeoutList* pending_ = nullptr;  // the list that it is in
  std::uint64_t expires_ = 0;       // a tick while it is in a list, otherwise free for its owner
  std::uint32_t flags_ = absolute;  // the upper bits are free for its owner
};

/// A first-in, first-out list from which any member can be removed in constant time.
class TARVO_EXPORT TimeoutList {
 public:
  TimeoutList() = default;
  TimeoutList(const TimeoutList&) = delete;
  TimeoutList& operator=(const TimeoutList&) = delete;

  bool empty() const { return first_ == nullptr; }
  TimeoutRecord* first() const { return first_; }
  /// REQUIRES: the record hangs in no list.
  void append(TimeoutRecord& record);
  /// REQUIRES: the record hangs in this list.
  void remove(TimeoutRecord& record);
  /// Empties the list without unlinking its members: returns the first, and `next_` leads to the
  /// others.
  TimeoutRecord* release() {
    last_ = nullptr;
    return std::exchange(first_, nullptr);
  }

 private:
  TimeoutRecord* first_ = nullptr;
  TimeoutRecord* last_ = nullptr;
};

inline void TimeoutList::append(TimeoutRecord& record) {
  record.next_ = nullptr;
  record.previous_ = last_;
  record.pending_ = this;
  (last_ != nullptr ? last_->next_ : first_) = &record;
  last_ = &record;
}

inline void TimeoutList::remove(TimeoutRecord& record) {
  (record.previous_ != nullptr ? record.previous_->next_ : first_) = record.next_;
  (record.next_ != nullptr ? record.next_->previous_ : last_) = record.previous_;
  record.pending_ = nullptr;
}

}  // namespace Tarvo::Impl

#endif
