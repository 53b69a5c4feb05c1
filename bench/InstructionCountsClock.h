#ifndef TARVO_BENCH_INSTRUCTIONCOUNTSCLOCK_H
#define TARVO_BENCH_INSTRUCTIONCOUNTSCLOCK_H

namespace counts {

/// Moves the clock that everything in this program reads.
void passSeconds(long seconds);

}  // namespace counts

#endif
