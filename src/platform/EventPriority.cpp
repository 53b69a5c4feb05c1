#include <ostream>

#include "Tarvo/Platform.h"

namespace Tarvo::Platform {

bool isEventPriorityValid(EventPriority priority) { return priority < 2; }

String eventPriorityToString(EventPriority priority) {
  switch (priority) {
    case eventPriorityStrictHigh:
      return "eventPriorityStrictHigh";
    case eventPriorityDefault:
      return "eventPriorityDefault";
  }
  return "";
}

std::ostream& operator<<(std::ostream& out, EventPriority priority) {
  return out << fmt::format("{}", priority);
}

}  // namespace Tarvo::Platform
