#ifndef TARVO_EXAMPLES_KV_SUMMARY_H
#define TARVO_EXAMPLES_KV_SUMMARY_H

#include "LoadTest.h"

namespace kv {

/// Prints what the test found.
void printSummary(const LoadTest& test);

}  // namespace kv

#endif
