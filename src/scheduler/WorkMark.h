#ifndef TARVO_SRC_SCHEDULER_WORKMARK_H
#define TARVO_SRC_SCHEDULER_WORKMARK_H

#include <algorithm>

#include "Tarvo/TaskStat.h"

namespace Tarvo::Impl {

// High-water marks of work reports. TaskStat::noMark stands for "never reported".

/// Raises a mark to a report, which may be wider than a mark and must not read as none.
inline void raiseMark(unsigned int& mark, unsigned long long report) {
  const auto seen =
      static_cast<unsigned int>(std::min<unsigned long long>(report, TaskStat::noMark - 1));
  if (mark == TaskStat::noMark || seen > mark) mark = seen;
}

/// Raises a mark to another, which may be none.
inline void mergeMark(unsigned int& mark, unsigned int other) {
  if (other != TaskStat::noMark) raiseMark(mark, other);
}

}  // namespace Tarvo::Impl

#endif
