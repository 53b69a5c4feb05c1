#include <cstdlib>
#include <iostream>
#include <string_view>

#include "Tarvo/DebugControl.h"
#include "Tarvo/Loco.h"
#include "trace/TraceFile.h"

namespace Tarvo::Platform {

namespace {

/// Calls `apply(name, levels)` for each entry of "name/levels,name/levels". A trailing comma is
/// ignored.
void forEachEntry(const String& text, void (*apply)(const String&, const String&)) {
  std::string_view rest = text;
  while (!rest.empty()) {
    const std::string_view entry = rest.substr(0, rest.find(','));
    const std::size_t slash = entry.find('/');
    const std::string_view levels =
        slash != std::string_view::npos ? entry.substr(slash + 1) : std::string_view();
    apply(String(entry.substr(0, slash)), String(levels));
    rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
  }
}

// secure_getenv(): a set-user-id program must not write to a file that its caller chooses.
void followTraceFileVariable() {
  const char* wanted = secure_getenv("TRACEFILE");
  Impl::TraceFile& file = Impl::traceFile();
  if (wanted != nullptr && file.isOpen() && file.name() == wanted) return;
  file.close();
  if (wanted == nullptr || file.open(wanted)) return;
  std::cerr << "Error opening TRACEFILE=" << wanted << std::endl
            << "Defaulting to std::cerr for trace output." << std::endl;
}

}  // namespace

std::shared_ptr<DebugHandler> getDebugHandler(const String& name) {
  return Orl::DebugControl::get(name, false);
}

void setupTarvoDebug(const char* spec) {
  {
    LocoGuard guard;
    followTraceFileVariable();
    if (spec == nullptr) spec = secure_getenv("TRACE");
    if (spec == nullptr) return;
  }
  forEachEntry(spec, Orl::DebugControl::set);
}

void clearTarvoDebug(const char* spec) {
  if (spec != nullptr) forEachEntry(spec, Orl::DebugControl::clear);
}

bool reopenTraceFile() {
  LocoGuard guard;
  return !Impl::traceFile().isOpen() || Impl::traceFile().reopen();
}

void dumpTarvoDebugMap() {
  LocoGuard guard;
  Orl::DebugControl::printAll();
  Orl::DebugHandler::printAll();
}

}  // namespace Tarvo::Platform
