#include "Tarvo/Symbols.h"

#include <sys/auxv.h>

#include "Tarvo/Backtrace.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Symbols;

void run(const std::string& command) { ASSERT_EQ(std::system(command.c_str()), 0) << command; }

struct SymbolsTest : TempFolder {
  SymbolsTest() { std::filesystem::copy_file(SYMBOLS_MODULE, module); }

  void open() {
    library = dlopen(module.c_str(), RTLD_NOW);
    place = reinterpret_cast<void* (*)()>(dlsym(library, "knownPlace"))();
  }
  void expectKnown(const Tarvo::Symbol& symbol, int line = 3) const {
    EXPECT_EQ(symbol.function, "known::Place::here(int)");
    EXPECT_THAT(symbol.file, EndsWith("tests/util/SymbolsModule.cpp"));
    EXPECT_EQ(symbol.line, line);
    EXPECT_EQ(symbol.module, module);
  }

  const std::string module = folder + "/module.so";
  void* library = nullptr;
  void* place = nullptr;
};

TEST_F(SymbolsTest, NamesCodeFromTheModuleAndFromASeparateDebugFile) {
  open();
  Symbols symbols;
  expectKnown(symbols.of(place));
  expectKnown(symbols.of(static_cast<char*>(place) + 8), 4);
  EXPECT_EQ(symbols.of(reinterpret_cast<void*>(getauxval(AT_SYSINFO_EHDR))).module, "[vdso]");
  EXPECT_EQ(symbols.of(nullptr).text(), "0x0");
  EXPECT_THAT(symbols.of(place).text(),
              MatchesRegex("known::Place::here\\(int\\) at /.*Module.cpp:3 in .*"));
  dlclose(library);

  const auto debug = folder + "/module.debug";
  run("objcopy --only-keep-debug --remove-section=.debug_aranges " + module + " " + debug +
      " && strip " + module + " && objcopy --add-gnu-debuglink=" + debug + " " + module);
  open();
  expectKnown(Symbols().of(place));
  run("echo >>" + debug);  // another file than the link means
  EXPECT_EQ(Symbols().of(place).line, 0);
  dlclose(library);
}

TEST_F(SymbolsTest, ABacktraceNamesTheModuleThatIsLoadedNow) {
  static std::string text;
  for (const char* name : {"one.so", "two.so", "one.so"}) {
    std::filesystem::copy_file(SYMBOLS_MODULE, folder + '/' + name,
                               std::filesystem::copy_options::skip_existing);
    library = dlopen((folder + '/' + name).c_str(), RTLD_NOW);
    const auto call = reinterpret_cast<void (*)(void (*)())>(dlsym(library, "callBack"));
    for (int round = 0; round < 2; ++round) {  // looked up, then remembered
      call([] { text = Tarvo::Backtrace(true).pretty(); });
      EXPECT_THAT(text, HasSubstr(name + std::string("(callBack+0x")));
    }
    dlclose(library);
  }
}

TEST_F(SymbolsTest, RemembersAClosedModuleButNoOtherFileUnderItsName) {
  open();
  Symbols read;
  Symbols unread;
  Symbols replaced;
  expectKnown(read.of(place));
  EXPECT_FALSE(read.of(place).closed);
  dlclose(library);
  for (auto* symbols : {&read, &unread}) {
    expectKnown(symbols->of(place));
    EXPECT_TRUE(symbols->of(place).closed);
  }
  EXPECT_EQ(Symbols().of(place).module, "");
  std::filesystem::rename(module, folder + "/old");
  std::filesystem::copy_file(SYMBOLS_MODULE, module);  // equal, but who knows
  EXPECT_EQ(replaced.of(place).module, module);
  EXPECT_EQ(replaced.of(place).function, "");
  expectKnown(read.of(place));
  std::filesystem::rename(folder + "/old", module);
  open();
  EXPECT_FALSE(read.of(place).closed);
  dlclose(library);
}

TEST_F(SymbolsTest, IsLoadedWhenWantedAndMissingIsAnError) {
  std::filesystem::copy_file(LIBRARY, folder + "/libTarvo.so.0.1");
  const auto alone = runProgram("LD_LIBRARY_PATH=" + folder + " " STACK_REPORT);
  EXPECT_EQ(alone.exitCode, 0);
  EXPECT_THAT(alone.out, HasSubstr("cannot load libTarvoSymbols.so.0.1, which reads symbols: lib"));
}

}  // namespace
