#ifndef TARVO_CHECKINCOMPAT_H
#define TARVO_CHECKINCOMPAT_H

#include <cstdint>

#include "Tarvo/Export.h"

namespace Tarvo {

/// The value by which this library marks the platform layer as its own.
inline constexpr std::uint32_t PLATFORM_LIB_FLAG_TARVO = 2;

/// To be called once by a program that uses the library, early in main() or in a plug-in's
/// initialiser. Aborts when another library that provides the same platform layer was bound first;
/// otherwise makes the library's symbols take part in global symbol resolution, also when it was
/// loaded privately.
TARVO_EXPORT void checkIncompat();

}  // namespace Tarvo

/// Which platform layer the dynamic loader bound first. A plain global, so that another library
/// can stand in its place.
extern TARVO_EXPORT std::uint32_t platformLibPresenceFlag;

#endif
