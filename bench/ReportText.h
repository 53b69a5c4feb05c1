#ifndef TARVO_BENCH_REPORTTEXT_H
#define TARVO_BENCH_REPORTTEXT_H

/// Numbers as people read them.

#include <string>

namespace report {

/// Three digits, and never an exponent: 0.612, 4.31, 87.5, 1230000.
std::string threeDigits(double number);
/// With the unit that suits it: 4.31 ns, 1.23 ms.
std::string duration(double nanoseconds);
/// 1000 as 1k, 1000000 as 1M.
std::string count(double number);

}  // namespace report

#endif
