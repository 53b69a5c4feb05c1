#ifndef TARVO_BENCH_ATDEPTH_H
#define TARVO_BENCH_ATDEPTH_H

/// Calls `body` with `depth` frames more on the stack.
template <typename Body>
[[gnu::noinline]] void atDepth(long depth, const Body& body) {
  if (depth > 0) {
    atDepth(depth - 1, body);
  } else {
    body();
  }
  asm volatile("");  // keeps every frame
}

#endif
