#ifndef TARVO_TIMEOUTRECORD_H
#define TARVO_TIMEOUTRECORD_H

#include <cstdint>
#include <utility>

#include "Tarvo/Export.h"

namespace Tarvo::Impl {

class TimeoutList;

/// The links by which a timer hangs in at most one list, a slot of the timing wheel. Part of the
/// timer, so that linking allocates nothing.
struct TimeoutRecord {
  /// Expiries are absolute ticks.
  static constexpr std::uint32_t absolute = 2;

  TimeoutRecord* next_ = nullptr;
  TimeoutRecord* previous_ = nullptr;
  TimeoutList* pending_ = nullptr;  // the list that it hangs in
  std::uint64_t expires_ = 0;       // tick in the wheel; its owner's when it is in no list
  std::uint32_t flags_ = absolute;  // the upper bits are its owner's
};

/// First in, first out; any member leaves in constant time.
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
  /// Forgets all members and returns the first; the others follow by their links.
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
