#include "foundation/Terminate.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Exception.h"
#include "Tarvo/TypeName.h"
#include "foundation/StandardError.h"

namespace Tarvo::Impl {

namespace {

thread_local bool assertionFailed = false;
thread_local bool terminating = false;

/// What the exception in flight says. Sets `wantsBacktrace` off when that text holds one.
String describeException(bool& wantsBacktrace) {
  try {
    throw;
  } catch (const Exception& e) {
    wantsBacktrace = false;
    return String("  what(): ").append(e.text());
  } catch (const std::exception& e) {
    const char* what = e.what();
    return String("  what(): ") + (what != nullptr ? what : "");
  } catch (...) {
    return {};
  }
}

void reportAndAbort() {
  // A failure while reporting must not report itself for ever.
  if (terminating) std::abort();
  terminating = true;

  String report;
  bool wantsBacktrace = true;
  const std::type_info* type = assertionFailed ? nullptr : abi::__cxa_current_exception_type();
  if (type != nullptr) {
    const char* mangled = type->name();
    if (*mangled == '*') ++mangled;
    writeLastWords("terminate called after throwing an instance of '" + typeName(mangled) + "'\n");
    report = describeException(wantsBacktrace);
  }
  if (wantsBacktrace && Backtrace::verbosity() == 1) report += Backtrace(true).pretty();
  if (!report.empty()) writeLastWords(report + "\n");
  std::abort();
}

}  // namespace

void installTerminateHandler() { std::set_terminate(reportAndAbort); }

void terminateOnAssertion() {
  assertionFailed = true;
  std::terminate();
}

}  // namespace Tarvo::Impl
