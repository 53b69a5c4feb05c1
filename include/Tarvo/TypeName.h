#ifndef TARVO_TYPENAME_H
#define TARVO_TYPENAME_H

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

/// The readable form of a name mangled by the C++ ABI, as std::type_info::name() gives it; the name
/// itself when it cannot be read, and nothing for null. Fails an assertion when the demangler
/// claims success without a result.
TARVO_EXPORT String typeName(const char* mangledName);

}  // namespace Tarvo

#endif
