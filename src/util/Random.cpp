#include "Tarvo/Random.h"

#include <cstdlib>
#include <ctime>
#include <iostream>
#include <random>
#include <string>

namespace Tarvo {

bool Random::firstSetSeedFlag = true;

namespace {

std::uint32_t seed = 0;

std::mt19937_64& engine() {
  static std::mt19937_64 twister;
  return twister;
}

std::uint32_t chooseSeed(const char* text) {
  if (text != nullptr) return static_cast<std::uint32_t>(std::strtoul(text, nullptr, 10));
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint32_t>(now.tv_nsec);
}

}  // namespace

void Random::setSeed() {
  const char* text = std::getenv("ZQTEST_RANDSEED");
  if (firstSetSeedFlag) {
    firstSetSeedFlag = false;
    seed = chooseSeed(text);
  }
  std::cerr << "Tarvo::Random::setSeed(), setting seed to " << std::to_string(seed) << std::endl;
  std::srand(seed);
  engine().seed(seed);
}

std::uint32_t Random::getSeed() { return seed; }

std::uint64_t Random::rand64() { return engine()(); }

String Random::randomString(unsigned length) {
  // The terminating zero counts as the 63rd character.
  static constexpr char alphabet[] =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  static_assert(sizeof alphabet == 63);
  String text;
  text.reserve(length);
  for (unsigned i = 0; i < length; ++i) {
    text.push_back(alphabet[static_cast<unsigned>(std::rand()) % sizeof alphabet]);
  }
  return text;
}

}  // namespace Tarvo
