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

/// What the exception in flight says. Sets `wantsBacktrace` off when that text holds one.
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

/// The same piece by piece, when there is no memory to put a text together.
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
  // A failure while reporting must not report itself for ever.
  if (terminating) std::abort();
  terminating = true;

  const std::type_info* type = assertionFailed ? nullptr : abi::__cxa_current_exception_type();
  const char* mangled = type == nullptr ? nullptr : type->name();
  if (mangled != nullptr && *mangled == '*') ++mangled;
  bool reported = false;
  try {
    report(mangled);
    reported = true;
  } catch (...) {  // what is then in flight is not what has ended the process
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
