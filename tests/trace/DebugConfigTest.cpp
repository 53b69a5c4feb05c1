#include "Tarvo/DebugControl.h"
#include "Tarvo/Loco.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Platform::clearTarvoDebug;
using Tarvo::Platform::setupTarvoDebug;

/// The listing's entries whose names begin with `prefix`, each after the letter of its section.
String listing(const String& prefix) {
  testing::internal::CaptureStdout();
  Tarvo::Platform::dumpTarvoDebugMap();
  std::istringstream in(testing::internal::GetCapturedStdout());
  std::multiset<String> entries;
  char section = ' ';
  for (String line; std::getline(in, line);) {
    if (!line.starts_with(' ')) section = line[0];
    if (line.starts_with("    " + prefix)) entries.insert(section + line.substr(4));
  }
  return fmt::to_string(fmt::join(entries, " "));
}

TEST(DebugConfigTest, RecordsReachTheHandlesAndRecordsThatTheirNamesCover) {
  // Gets a handle (?), sets (+) or clears (-), and lists the handles, exact records and wildcards.
  const std::pair<const char*, const char*> steps[] = {
      {"?tab", "Htab/"},
      {"+tab/1", "Htab/1 Stab/1"},
      {"+tabc*/3", "Htab/1 Stab/1 Wtabc*/3"},
      {"+tb/9", "Htab/1 Stab/1 Stb/9 Wtabc*/3"},
      {"+ta*/2", "Htab/12 Stab/12 Stb/9 Wta*/2 Wtabc*/23"},
      // What is new begins with the levels of the shortest wildcard that matches.
      {"?tabcd", "Htab/12 Htabcd/2 Stab/12 Stb/9 Wta*/2 Wtabc*/23"},
      {"+tabcd/5", "Htab/12 Htabcd/25 Stab/12 Stabcd/25 Stb/9 Wta*/2 Wtabc*/23"},
      {"+tac*/4", "Htab/12 Htabcd/25 Stab/12 Stabcd/25 Stb/9 Wta*/2 Wtabc*/23 Wtac*/24"},
      // An empty record masks a wildcard; where there is none, a handle shows what was cleared.
      {"-tab/12", "Htab/ Htabcd/25 Stab/ Stabcd/25 Stb/9 Wta*/2 Wtabc*/23 Wtac*/24"},
      {"?tab", "Htab/ Htab/ Htabcd/25 Stab/ Stabcd/25 Stb/9 Wta*/2 Wtabc*/23 Wtac*/24"},
      {"-tax/2", "Htab/ Htab/ Htabcd/25 Htax/ Stab/ Stabcd/25 Stb/9 Wta*/2 Wtabc*/23 Wtac*/24"},
      {"-ta*/235", "Htab/ Htab/ Htabcd/ Htax/ Stb/9 Wtac*/4"},
      {"-tb/9", "Htab/ Htab/ Htabcd/ Htax/ Wtac*/4"},
      {"+ta*/6", "Htab/6 Htab/6 Htabcd/6 Htax/6 Wta*/6 Wtac*/46"},
      {"-tab/6", "Htab/ Htab/ Htab/ Htabcd/6 Htax/6 Wta*/6 Wtac*/46"},
      {"+ta*/7", "Htab/67 Htab/67 Htab/67 Htabcd/67 Htax/67 Wta*/67 Wtac*/467"},
      {"-tab/6", "Htab/7 Htab/7 Htab/7 Htab/7 Htabcd/67 Htax/67 Wta*/67 Wtac*/467"},
      {"+tab/8",
       "Htab/678 Htab/678 Htab/678 Htab/678 Htabcd/67 Htax/67 Stab/678 Wta*/67 Wtac*/467"},
      {"-t*/467", "Htab/8 Htab/8 Htab/8 Htab/8 Htabcd/ Htax/ Stab/8"}};
  std::vector<std::shared_ptr<Tarvo::Platform::DebugHandler>> kept;
  for (const auto& [step, expected] : steps) {
    if (*step == '?') kept.push_back(getDebugHandler(step + 1));
    if (*step == '+') setupTarvoDebug(step + 1);
    if (*step == '-') clearTarvoDebug(step + 1);
    EXPECT_EQ(listing("t"), expected) << step;
  }
}

TEST(DebugConfigTest, FixedLevelsAndForeignWordsAreLeftAlone) {
  const Tarvo::Platform::LocoGuard guard;
  std::uint32_t word = 4;
  Tarvo::Orl::DebugHandler foreign("odd.foreign", &word, false);
  const Tarvo::Orl::DebugHandler fixed("odd.fixed", 4, true);
  setupTarvoDebug("odd*/3,odd.fixed/5");
  clearTarvoDebug("odd*/2,odd.fixed/2");
  EXPECT_THAT(failureOf([&] { foreign.enabledIs(1, true); }),
              HasSubstr("Cannot use this with a non-null levelsPtr passed to constructor"));
  EXPECT_EQ(word, 8U);
  EXPECT_EQ(listing("odd."), "Hodd.fixed+/2 Hodd.foreign/3 Sodd.fixed/35");
}

TEST(DebugConfigTest, EntriesAreCutAtCommasAndSlashes) {
  const auto handler = getDebugHandler("cut");
  setupTarvoDebug("cut/1-3x/5,,cut2,cute/0*,");
  EXPECT_THAT(listing("cute"), EndsWith("*"));
  clearTarvoDebug("cute/0*");
  EXPECT_EQ(handler->levels(), 0b101010U);
  handler->enabledIs(52, true);  // modulo 32; the configuration leaves it alone
  EXPECT_EQ(listing("cut"), "Hcut/135 Scut/135 Scut2/");
  EXPECT_EQ(listing("/"), "S/");  // the empty name between the commas
  clearTarvoDebug("cut/9*,cut2/,/");
  EXPECT_EQ(listing("cut"), "Hcut/");
  EXPECT_EQ(handler->levels(), 1U << 20);
  clearTarvoDebug(nullptr);
}

}  // namespace
