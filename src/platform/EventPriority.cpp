#include <fmt/format.h>

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

fmt::format_context::iterator fmt::formatter<Tarvo::Platform::EventPriority>::format(
    Tarvo::Platform::EventPriority priority, fmt::format_context& context) const {
  const auto text = Tarvo::Platform::isEventPriorityValid(priority)
                        ? Tarvo::Platform::eventPriorityToString(priority)
                        : fmt::format("Invalid EventPriority={}", unsigned{priority});
  return fmt::formatter<fmt::string_view>::format(text, context);
}
