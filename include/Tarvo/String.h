#ifndef TARVO_STRING_H
#define TARVO_STRING_H

#include <string>

namespace Tarvo {

/// The library's string: bytes, of no particular encoding.
using String = std::string;

}  // namespace Tarvo

#endif
