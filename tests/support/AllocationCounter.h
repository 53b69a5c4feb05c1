#ifndef TARVO_TESTS_SUPPORT_ALLOCATIONCOUNTER_H
#define TARVO_TESTS_SUPPORT_ALLOCATIONCOUNTER_H

namespace testsupport {

/// How often operator new was called by the calling thread, in programs that link the counter.
unsigned long allocations();

}  // namespace testsupport

#endif
