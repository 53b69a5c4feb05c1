#ifndef TARVO_CHECKINCOMPAT_H
#define TARVO_CHECKINCOMPAT_H

#include <cstdint>

#include "Tarvo/Export.h"

namespace Tarvo {

/// The value by which this library marks the platform layer as its own.
inline constexpr std::uint32_t PLATFORM_LIB_FLAG_TARVO = 2;

/// Call once, early in main() or in a plug-in's initialiser. Aborts when another library that
/// provides the same platform layer was bound first. Otherwise adds the library's symbols to global
/// symbol resolution, also when it was loaded with RTLD_LOCAL.
TARVO_EXPORT void checkIncompat();

}  // namespace Tarvo

/// The platform layer that the dynamic loader bound first. A plain global variable, because another
/// library may define it too; the first definition wins.
extern TARVO_EXPORT std::uint32_t platformLibPresenceFlag;

#endif
