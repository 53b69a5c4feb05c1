#ifndef TARVO_SRC_REPORTS_DISPLAYTEXT_H
#define TARVO_SRC_REPORTS_DISPLAYTEXT_H

#include <string_view>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// For a table: valid UTF-8 cut to `width` columns, as terminals count them. What has no shape of
/// its own becomes a question mark: control characters, marks of direction, what is not assigned.
String tableText(std::string_view text, std::size_t width);

/// How many columns such a text takes.
std::size_t columns(std::string_view tableText);

}  // namespace Tarvo::Impl

#endif
