#include "foundation/Terminate.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <initializer_list>
#include <typeinfo>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Exception.h"
#include "Tarvo/TypeName.h"
#include "foundation/StandardError.h"

namespace Tarvo::Impl {

namespace {

thread_local bool assertionFailed = false;
thread_local bool terminating = false;

const char* textOf(const std::exception& e) {
  const char* text = e.what();
  return text != nullptr ? text : "";
}

/// The text of the exception in flight. Clears `wantsBacktrace` when that text contains a
/// backtrace.
String describeException(bool& wantsBacktrace) {
  try {
    throw;
  } catch (const Exception& e) {
    wantsBacktrace = false;
    return String("  what(): ").append(e.text());
  } catch (const std::exception& e) {
    return String("  what(): ") + textOf(e);
  } catch (...) {
    return {};
  }
}

void report(const char* mangled) {
  String text;
  bool wantsBacktrace = true;
  if (mangled != nullptr) {
    writeLastWords("terminate called after throwing an instance of '" + typeName(mangled) + "'\n");
    text = describeException(wantsBacktrace);
  }
  if (wantsBacktrace && Backtrace::verbosity() == 1) text += Backtrace(true).pretty();
  if (!text.empty()) writeLastWords(text + "\n");
}

/// The same, written in pieces, for when there is no memory to compose a text.
void reportWithoutMemory(const char* mangled) {
  if (mangled == nullptr) return;
  const auto write = [](std::initializer_list<const char*> pieces) {
    for (const char* piece : pieces) writeLastWords(piece);
  };
  write({"terminate called after throwing an instance of '", mangled, "'\n"});
  try {
    throw;
  } catch (const std::exception& e) {
    write({"  what(): ", textOf(e), "\n"});
  } catch (...) {
  }
}

void reportAndAbort() {
  // std::terminate() was called again during the report: do not recurse.
  if (terminating) std::abort();
  terminating = true;

  const std::type_info* type = assertionFailed ? nullptr : abi::__cxa_current_exception_type();
  const char* mangled = type == nullptr ? nullptr : type->name();
  if (mangled != nullptr && *mangled == '*') ++mangled;  // marks types compared by address
  bool reported = false;
  try {
    report(mangled);
    reported = true;
  } catch (...) {  // leave this handler, so that the original exception is the current one again
  }
  if (!reported) reportWithoutMemory(mangled);
  std::abort();
}

}  // namespace

void installTerminateHandler() { std::set_terminate(reportAndAbort); }

void terminateOnAssertion() {
  assertionFailed = true;
  std::terminate();
}

}  // namespace Tarvo::Impl
