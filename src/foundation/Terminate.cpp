#include "foundation/Terminate.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <iostream>

#include "Tarvo/Backtrace.h"
#include "Tarvo/Exception.h"
#include "Tarvo/TypeName.h"

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
    return String("  what(): ") + e.what();
  } catch (const std::exception& e) {
    return String("  what(): ") + e.what();
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
    std::cerr << "terminate called after throwing an instance of '" << typeName(mangled) << "'"
              << std::endl;
    report = describeException(wantsBacktrace);
  }
  if (wantsBacktrace && Backtrace::verbosity() == 1) report += Backtrace(true).pretty();
  if (!report.empty()) std::cerr << report << std::endl;
  std::abort();
}

}  // namespace

void installTerminateHandler() { std::set_terminate(reportAndAbort); }

void terminateOnAssertion() {
  assertionFailed = true;
  std::terminate();
}

}  // namespace Tarvo::Impl
