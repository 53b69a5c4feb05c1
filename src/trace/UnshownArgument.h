#ifndef TARVO_SRC_TRACE_UNSHOWNARGUMENT_H
#define TARVO_SRC_TRACE_UNSHOWNARGUMENT_H

#include <string_view>

namespace Tarvo::Fmt::Impl {

/// Ends a message whose argument threw instead of being shown.
inline constexpr std::string_view unshownArgument = " (an argument cannot be shown)";

}  // namespace Tarvo::Fmt::Impl

#endif
