#ifndef TARVO_SRC_REPORTS_REPORT_H
#define TARVO_SRC_REPORTS_REPORT_H

#include <string_view>

namespace Tarvo {

/// A text that is made in pieces, so that a task can write it without exceeding its quantum.
class Report {
 public:
  Report() = default;
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;
  virtual ~Report() = default;

  /// Makes the next piece. False after the last one.
  virtual bool step() = 0;

  /// The text made since the last clear().
  virtual std::string_view text() const = 0;
  virtual void clear() = 0;
};

}  // namespace Tarvo

#endif
