#include <fmt/format.h>

#include <span>

#include "Tarvo/Introspection.h"
#include "Tarvo/Platform.h"

namespace Tarvo::Platform {

ValuePrinter::ValuePrinter(const String& typeName, int size) : typeName_(typeName), size_(size) {}
ValuePrinter::~ValuePrinter() = default;

String ValuePrinter::toString(const void* value) {
  const String custom = customToString(value);
  return custom.empty() ? dumpHex(value) : custom;
}

String ValuePrinter::customToString(const void* value) const {
  const IntrospectionPrinter printer = introspectionPrinter(typeName_);
  return printer ? printer(value) : String();
}

String ValuePrinter::dumpHex(const void* value) const {
  if (value == nullptr || size_ <= 0) return "";
  const std::span bytes(static_cast<const unsigned char*>(value), static_cast<std::size_t>(size_));
  return fmt::format("{:02x}", fmt::join(bytes, ""));
}

std::shared_ptr<ValuePrinter> getValuePrinter(const String& typeName, int size) {
  return std::make_shared<ValuePrinter>(typeName, size);
}

}  // namespace Tarvo::Platform
