#ifndef TARVO_RANDOM_H
#define TARVO_RANDOM_H

/// Reproducible random numbers: the seed is printed to standard error whenever it is set, and the
/// environment variable ZQTEST_RANDSEED sets it.
///
///     Tarvo::Random::setSeed();   // Tarvo::Random::setSeed(), setting seed to 604822741
///     const std::uint64_t victim = Tarvo::Random::rand64() % count;
///
/// To repeat a failed run: ZQTEST_RANDSEED=604822741 ./test
///
/// setSeed() restarts two generators: the 64-bit Mersenne Twister (MT19937-64, Nishimura and
/// Matsumoto) for rand64(), and the C library's rand() for randomString(). Neither is fit for
/// cryptography. Nothing is locked: set the seed at start, and use one thread at a time.

#include <cstdint>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class TARVO_EXPORT Random {
 public:
  /// Until the first setSeed() has chosen the seed.
  static bool firstSetSeedFlag;

  /// The first call chooses the seed: the variable's value, as strtoul() reads it and cut to 32
  /// bits, or the nanoseconds of the clock. Every call prints it and restarts both generators.
  static void setSeed();
  /// The seed; 0 before the first setSeed().
  static std::uint32_t getSeed();
  /// Before the first setSeed() it gives the standard's default sequence.
  static std::uint64_t rand64();
  /// A string of digits, letters and zero bytes, each of these 63 characters equally likely.
  static String randomString(unsigned length);
};

}  // namespace Tarvo

#endif
