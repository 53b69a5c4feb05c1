#ifndef TARVO_INTROSPECTION_H
#define TARVO_INTROSPECTION_H

/// The introspection map: how values of a type are shown in traces, by the type's name. Filled by
/// whoever owns a type, read through Platform::ValuePrinter. Any thread may use it.
///
///     Tarvo::introspectionPrinterIs("Point", [](const void* value) {
///       const auto& p = *static_cast<const Point*>(value);
///       return fmt::format("({}, {})", p.x, p.y);
///     });

#include <functional>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

using IntrospectionPrinter = std::function<String(const void* value)>;

/// Sets or replaces the printer of a type; an empty printer removes it.
TARVO_EXPORT void introspectionPrinterIs(const String& typeName, IntrospectionPrinter printer);

/// The printer of a type, empty when there is none.
TARVO_EXPORT IntrospectionPrinter introspectionPrinter(const String& typeName);

}  // namespace Tarvo

#endif
