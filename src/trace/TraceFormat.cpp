#include "trace/TraceFormat.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "Tarvo/Debug.h"
#include "Tarvo/Loco.h"

namespace Tarvo {

namespace {

std::atomic<std::uint8_t> fieldsInForce{0};

void printUsage() {
  std::cerr << "Usage:\n  TRACEFORMAT=field,field,...\nList of possible fields:";
  for (const char* name : Impl::traceFieldNames) std::cerr << "\n  " << name;
  std::cerr << std::endl;
}

/// Adds the field called `name`; false when there is none.
bool addField(Impl::TraceFields& fields, std::string_view name) {
  const auto& names = Impl::traceFieldNames;
  const auto found = std::find(names.begin(), names.end(), name);
  if (found == names.end()) return false;
  fields.add(static_cast<Impl::TraceField>(found - names.begin()));
  return true;
}

void storeFields(Impl::TraceFields fields) {
  Platform::LocoGuard guard;
  fieldsInForce.store(fields.bits(), std::memory_order_relaxed);
}

}  // namespace

Impl::TraceFields Impl::traceFields() {
  return TraceFields(fieldsInForce.load(std::memory_order_relaxed));
}

namespace Platform {

void setTraceFormat(const char* spec) {
  if (spec == nullptr) spec = secure_getenv("TRACEFORMAT");
  if (spec == nullptr) return;
  const String text = spec;
  if (text == "help") return printUsage();

  Impl::TraceFields fields;
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::string_view name = rest.substr(0, rest.find(','));
    rest.remove_prefix(std::min(name.size() + 1, rest.size()));
    if (!name.empty() && !addField(fields, name)) {
      std::cerr << name << " is an invalid field in TRACEFORMAT\n"
                << "Set TRACEFORMAT=help for more information." << std::endl;
      return;
    }
  }
  storeFields(fields);
}

void clearTraceFormat() { storeFields(Impl::TraceFields()); }

void printAllTraceFormat() {
  LocoGuard guard;
  const Impl::TraceFields fields = Impl::traceFields();
  for (std::size_t i = 0; i < Impl::traceFieldNames.size(); ++i) {
    std::cout << (i > 0 ? " " : "") << (fields.has(static_cast<Impl::TraceField>(i)) ? '1' : '0');
  }
  std::cout << std::endl;
}

}  // namespace Platform

}  // namespace Tarvo
