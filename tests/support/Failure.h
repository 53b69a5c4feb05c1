#ifndef TARVO_TESTS_SUPPORT_FAILURE_H
#define TARVO_TESTS_SUPPORT_FAILURE_H

#include "Tarvo/Exception.h"

namespace testsupport {

/// The message of the run-time exception that `body` throws, or "nothing failed".
template <typename Thrown = Tarvo::RuntimeException, typename Body>
Tarvo::String errorOf(Body body) {
  try {
    body();
  } catch (const Thrown& e) {
    return e.msg();
  }
  return "nothing failed";
}

/// The message of the assertion that `body` fails, or "nothing failed".
template <typename Body>
Tarvo::String failureOf(Body body) {
  return errorOf<Tarvo::AssertException>(body);
}

}  // namespace testsupport

#endif
