namespace known {
struct Place {
  static int here(int x) {
    return x + 1;  // line 4
  }
};
}  // namespace known
extern "C" void callBack(void (*function)()) { function(); }
extern "C" int (*knownPlace())(int);
int (*knownPlace())(int) { return known::Place::here; }
