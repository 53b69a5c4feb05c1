#include "Tarvo/Introspection.h"

#include <unordered_map>

#include "Tarvo/Loco.h"
#include "foundation/Registry.h"

namespace Tarvo {

namespace {

// REQUIRES: the global lock. Never destroyed: values may be shown while the process exits.
std::unordered_map<String, IntrospectionPrinter>& introspectionMap() {
  static auto& map = *new std::unordered_map<String, IntrospectionPrinter>;
  return map;
}

}  // namespace

void introspectionPrinterIs(const String& typeName, IntrospectionPrinter printer) {
  Platform::LocoGuard guard;
  auto& map = introspectionMap();
  const auto known = map.find(typeName);
  if (known == map.end()) {
    if (printer) Impl::addEntry(map, typeName, std::move(printer));
  } else if (printer) {
    const Impl::WholeChange change;
    known->second.swap(printer);
  } else {
    Impl::removeEntry(map, known);
  }
}

IntrospectionPrinter introspectionPrinter(const String& typeName) {
  Platform::LocoGuard guard;
  const auto found = introspectionMap().find(typeName);
  return found != introspectionMap().end() ? found->second : IntrospectionPrinter();
}

}  // namespace Tarvo
