#ifndef TARVO_SRC_SCHEDULER_WORKMARK_H
#define TARVO_SRC_SCHEDULER_WORKMARK_H

#include <algorithm>

#include "Tarvo/TaskStat.h"

namespace Tarvo::Impl {

// High-water marks of work reports. TaskStat::noMark stands for "never reported".

/// mark = max(mark, report), capped at noMark - 1 so that it never reads as "never reported".
inline void raiseMark(unsigned int& mark, unsigned long long report) {
  const auto seen =
      static_cast<unsigned int>(std::min<unsigned long long>(report, TaskStat::noMark - 1));
  if (mark == TaskStat::noMark || seen > mark) mark = seen;
}

/// mark = max(mark, other), where either may be noMark.
inline void mergeMark(unsigned int& mark, unsigned int other) {
  if (other != TaskStat::noMark) raiseMark(mark, other);
}

}  // namespace Tarvo::Impl

#endif
