#include "Tarvo/DebugControl.h"
#include "Tarvo/Loco.h"
#include "support/Test.h"

namespace {

using namespace testsupport;
using Tarvo::Platform::clearTarvoDebug;
using Tarvo::Platform::setupTarvoDebug;
using HandlerPtr = std::shared_ptr<Tarvo::Platform::DebugHandler>;
using Lines = std::vector<String>;

/// The listing's lines that hold `prefix` at the start of a name, in order.
Lines listing(const String& prefix) {
  testing::internal::CaptureStdout();
  Tarvo::Platform::dumpTarvoDebugMap();
  std::istringstream in(testing::internal::GetCapturedStdout());
  Lines lines;
  String section;
  for (String line; std::getline(in, line);) {
    if (!line.starts_with(' ')) section = line;
    if (line.starts_with("    " + prefix)) lines.push_back(section + line.substr(4));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

String withLevels(String name, unsigned levels) {
  if (levels == 1023) return name + "/*";
  name += '/';
  for (int level = 0; level < 10; ++level)
    if (levels & (1U << level)) name += std::to_string(level);
  return name;
}

/// The same configuration by brute force: a list of entries of all three kinds.
class Model {
 public:
  void set(const String& name, unsigned levels, bool wildcard) {
    const String& kind = wildcard ? wild : exact;
    if (!find(kind, name)) entries_.push_back({kind, name, inherited(name).value_or(0)});
    const unsigned all = find(kind, name)->levels |= levels;
    for (auto& entry : entries_)
      if (entry.isHit(name, wildcard)) entry.levels |= all;
  }

  void clear(const String& name, unsigned levels, bool wildcard) {
    if (!wildcard && !find(exact, name) && inherited(name)) get(name);
    for (auto& entry : entries_)
      if (entry.isHit(name, wildcard)) entry.levels &= ~levels;
    const auto eraseEmpty = [&](const String& kind, auto condition) {
      std::erase_if(entries_, [&](const Entry& entry) {
        return entry.kind == kind && entry.levels == 0 && condition(entry);
      });
    };
    eraseEmpty(wild, [&](const Entry&) { return wildcard; });
    eraseEmpty(exact, [&](const Entry& entry) {
      return entry.isHit(name, wildcard) && !inherited(entry.name);
    });
  }

  void get(const String& name) {
    const Entry* record = find(exact, name);
    const unsigned levels = record ? record->levels : inherited(name).value_or(0);
    entries_.push_back({"Handlers:", name, levels});
  }

  Lines listing() const {
    Lines lines;
    for (const auto& [kind, name, levels] : entries_)
      lines.push_back(kind + withLevels(name + (kind == wild ? "*" : ""), levels));
    std::sort(lines.begin(), lines.end());
    return lines;
  }

 private:
  static inline const String exact = "Specific:", wild = "Wildcard:";
  struct Entry {
    String kind, name;
    unsigned levels;
    bool isHit(const String& wanted, bool wildcard) const {
      return wildcard ? name.starts_with(wanted) : name == wanted && kind != wild;
    }
  };
  Entry* find(const String& kind, const String& name) {
    for (auto& entry : entries_)
      if (entry.kind == kind && entry.name == name) return &entry;
    return nullptr;
  }
  /// From the shortest wildcard that matches.
  std::optional<unsigned> inherited(const String& name) {
    for (std::size_t size = 0; size <= name.size(); ++size)
      if (const auto* entry = find(wild, name.substr(0, size))) return entry->levels;
    return {};
  }

  std::list<Entry> entries_;
};

TEST(DebugConfigTest, AgreesWithANaiveMatcher) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 generator(seed);
    const auto random = [&] { return static_cast<unsigned>(generator()); };
    const String root = fmt::format("m{}.", seed);
    const Lines tails = {"", "a", "ab", "abc", "abd", "b", "ba"};
    Model model;
    std::vector<HandlerPtr> kept;
    for (int step = 0; step < 150; ++step) {
      const String name = root + tails[random() % tails.size()];
      const bool wildcard = random() % 3 == 0;
      const unsigned levels = random() % 12 == 0 ? 1023 : random() & random() & 1023;
      const auto spec = withLevels(name + (wildcard ? "*" : ""), levels);
      const auto what = random() % 4;
      if (what == 0) {
        kept.push_back(getDebugHandler(name));
        model.get(name);
      } else {
        what == 1 ? setupTarvoDebug(spec.c_str()) : clearTarvoDebug(spec.c_str());
        what == 1 ? model.set(name, levels, wildcard) : model.clear(name, levels, wildcard);
      }
      ASSERT_EQ(listing(root), model.listing()) << "step " << step << " " << spec;
    }
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
  EXPECT_THAT(listing("odd."), ElementsAre("Handlers:odd.fixed+/2", "Handlers:odd.foreign/3",
                                           "Specific:odd.fixed/35"));
}

TEST(DebugConfigTest, EntriesAreCutAtCommasAndSlashes) {
  const auto handler = getDebugHandler("cut");
  setupTarvoDebug("cut/1-3x/5,,cut2,");
  EXPECT_EQ(handler->levels(), 0b101010U);
  handler->enabledIs(52, true);  // modulo 32; the configuration leaves it alone
  EXPECT_EQ(listing("cut"), (Lines{"Handlers:cut/135", "Specific:cut/135", "Specific:cut2/"}));
  EXPECT_EQ(listing("/"), Lines{"Specific:/"});  // the empty name between the commas
  clearTarvoDebug("cut/9*,cut2/,/");
  EXPECT_EQ(listing("cut"), Lines{"Handlers:cut/"});
  EXPECT_EQ(handler->levels(), 1U << 20);
  clearTarvoDebug(nullptr);
}

}  // namespace
