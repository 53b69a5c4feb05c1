#ifndef TARVO_SRC_REPORTS_DISPLAYTEXT_H
#define TARVO_SRC_REPORTS_DISPLAYTEXT_H

#include <string_view>

#include "Tarvo/String.h"

namespace Tarvo::Impl {

/// For a table: valid UTF-8 cut to `width` terminal columns. Characters without a visible shape
/// become question marks: control characters, direction marks, unassigned code points.
String tableText(std::string_view text, std::size_t width);

/// The number of terminal columns of a text that tableText() has made.
std::size_t columns(std::string_view tableText);

}  // namespace Tarvo::Impl

#endif
