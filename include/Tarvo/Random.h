#ifndef TARVO_RANDOM_H
#define TARVO_RANDOM_H

/// Random numbers that can be had again: the seed is announced on standard error whenever it is
/// set, and the environment variable ZQTEST_RANDSEED chooses it.
///
///     Tarvo::Random::setSeed();   // Tarvo::Random::setSeed(), setting seed to 604822741
///     const std::uint64_t victim = Tarvo::Random::rand64() % count;
///
/// To see a failure again: ZQTEST_RANDSEED=604822741 ./test
///
/// There are two streams, both restarted by setSeed(): the 64-bit Mersenne Twister (MT19937-64,
/// Nishimura and Matsumoto) behind rand64(), and the C library's rand() behind randomString(). Not
/// for secrets. Nothing here is locked: set the seed at start, and draw on one thread at a time.

#include <cstdint>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class TARVO_EXPORT Random {
 public:
  /// Until the first setSeed() has chosen the seed.
  static bool firstSetSeedFlag;

  /// Chooses the seed at the first call: the variable's value, as strtoul() reads it and cut to 32
  /// bits, or some nanoseconds of the clock. Announces it and restarts both streams, at every call.
  static void setSeed();
  /// The seed; 0 before the first setSeed().
  static std::uint32_t getSeed();
  /// Before any setSeed() the standard's default sequence.
  static std::uint64_t rand64();
  /// Digits, letters and, as likely as each of them, zero bytes.
  static String randomString(unsigned length);
};

}  // namespace Tarvo

#endif
