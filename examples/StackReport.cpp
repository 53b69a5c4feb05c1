/// Shows where a stack stands in the source. Built with -g, it shows files and lines too.

#include <Tarvo/Exception.h>
#include <Tarvo/Symbols.h>

#include <cstdio>

namespace {

struct Failed : Tarvo::RuntimeException {
  using RuntimeException::RuntimeException;
  Tarvo::Backtrace where{true};
};

[[gnu::noinline]] void fail() { throw Failed("this went wrong"); }

}  // namespace

int main() {
  try {
    fail();
  } catch (const Failed& failure) {
    std::printf("%s\n", failure.msg().c_str());
    try {
      Tarvo::Symbols symbols;
      for (const auto& symbol : symbols.of(failure.where)) {
        std::printf("  %s\n", symbol.text().c_str());
      }
    } catch (const Tarvo::RuntimeException& missing) {
      std::printf("%s\n", missing.msg().c_str());
    }
  }
}
