#include <Tarvo/TaskGroup.h>

// A program that knows groups alone finds all that they can do.
int main() {
  void (Tarvo::TaskGroup::*volatile check)() const =
      &Tarvo::TaskGroup::sanityCheckCurrentRunningThread;
  return check == nullptr ? 1 : 0;
}
