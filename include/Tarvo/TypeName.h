#ifndef TARVO_TYPENAME_H
#define TARVO_TYPENAME_H

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// Demangles a name as std::type_info::name() returns it. Returns the name itself when it cannot be
/// demangled, and an empty string for null. Fails an assertion when the demangler claims success
/// without a result.
TARVO_EXPORT String typeName(const char* mangledName);

}  // namespace Tarvo

#endif
