#include "Tarvo/Introspection.h"

#include <unordered_map>

#include "Tarvo/Loco.h"

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
  if (printer) {
    introspectionMap()[typeName] = std::move(printer);
  } else {
    introspectionMap().erase(typeName);
  }
}

IntrospectionPrinter introspectionPrinter(const String& typeName) {
  Platform::LocoGuard guard;
  const auto found = introspectionMap().find(typeName);
  return found != introspectionMap().end() ? found->second : IntrospectionPrinter();
}

}  // namespace Tarvo
