#include "Tarvo/Exception.h"

#include <atomic>

#include "foundation/StandardError.h"
#include "foundation/Terminate.h"

namespace Tarvo {

namespace {
std::atomic<bool> throwOnAssertFail{false};
}

Exception::Exception(const String& msg, bool captureBacktrace)
    : backtrace_(captureBacktrace), msg_(msg) {}
Exception::~Exception() = default;

const char* Exception::what() const noexcept { return text().data(); }

std::string_view Exception::text() const noexcept {
  try {
    if (what_.empty()) what_ = msg() + "\n" + backtrace_.pretty();
    return what_;
  } catch (...) {
    return msg_;
  }
}

const char* Exception::name() const { return "Tarvo::Exception"; }

String Exception::msg() const { return String(name()) + "(\"" + msg_ + "\")"; }

// One line a class: what the members of the family have in common.
#define TARVO_EXCEPTION_CLASS(Class, Base)  \
  Class::Class(const String& msg) : Base {} \
  Class::~Class() = default;                \
  const char* Class::name() const { return "Tarvo::" #Class; }
#define TARVO_EXCEPTION_THROW(Class) \
  void Class::throwException(const String& msg) { throw Class(msg); }

TARVO_EXCEPTION_CLASS(MemoryResourceException, Exception(msg, true))
TARVO_EXCEPTION_THROW(MemoryResourceException)
TARVO_EXCEPTION_CLASS(NoPermissionException, Exception(msg, true))
TARVO_EXCEPTION_THROW(NoPermissionException)
TARVO_EXCEPTION_CLASS(UnimplementedException, Exception(msg, true))
TARVO_EXCEPTION_THROW(UnimplementedException)
TARVO_EXCEPTION_CLASS(InvalidInitializeException, Exception(msg, true))
TARVO_EXCEPTION_THROW(InvalidInitializeException)
TARVO_EXCEPTION_CLASS(RuntimeException, Exception(msg, true))
TARVO_EXCEPTION_THROW(RuntimeException)
TARVO_EXCEPTION_CLASS(OutOfRangeException, Exception(msg, true))
TARVO_EXCEPTION_THROW(OutOfRangeException)
TARVO_EXCEPTION_CLASS(CorruptionDetectedException, Exception(msg, true))
TARVO_EXCEPTION_THROW(CorruptionDetectedException)
TARVO_EXCEPTION_CLASS(InvalidSizeException, CorruptionDetectedException(msg))
TARVO_EXCEPTION_THROW(InvalidSizeException)
TARVO_EXCEPTION_CLASS(AssertException, Exception(msg, true))

#undef TARVO_EXCEPTION_THROW
#undef TARVO_EXCEPTION_CLASS

void throwOnAssertFailIs(bool on) { throwOnAssertFail.store(on, std::memory_order_relaxed); }

void AssertException::throwException(const String& msg) {
  if (throwOnAssertFail.load(std::memory_order_relaxed)) throw AssertException(msg);
  Impl::writeLastWords("Tarvo::Assert aborting because: " + msg + "\n");
  Impl::terminateOnAssertion();
}

}  // namespace Tarvo
