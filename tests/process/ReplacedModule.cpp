/// A module that calls back from a frame of some size. Built twice with other sizes, it gives two
/// modules whose code is alike but for that: one at the other's address must be walked anew.

extern "C" {

[[gnu::noinline, gnu::visibility("default")]] void enterModule(void (*call)()) {
  volatile char frame[FRAME_SIZE];
  frame[0] = 1;
  call();
  frame[1] = frame[0];
}

}  // extern "C"
