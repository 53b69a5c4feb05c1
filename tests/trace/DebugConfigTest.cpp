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

/// The same configuration by brute force: three kinds of entries, each a name and its levels.
class Model {
 public:
  using Entries = std::multimap<String, unsigned>;

  void set(const String& name, unsigned bits, bool wildcard) {
    Entries& records = wildcard ? wildcards_ : exact_;
    auto record = records.find(name);
    if (record == records.end()) record = records.emplace(name, shortestPrefix(name).second);
    const unsigned all = record->second |= bits;
    forEach(name, wildcard, [all](unsigned& levels) { levels |= all; });
  }

  void clear(const String& name, unsigned bits, bool wildcard) {
    const bool masked = !wildcard && exact_.count(name) == 0 && shortestPrefix(name).first;
    if (masked) handlers_.emplace(name, shortestPrefix(name).second);
    forEach(name, wildcard, [bits](unsigned& levels) { levels &= ~bits; });
    if (wildcard) std::erase_if(wildcards_, [](const auto& record) { return record.second == 0; });
    std::erase_if(exact_, [&](const auto& record) {
      return record.second == 0 && hit(record.first, name, wildcard) &&
             !shortestPrefix(record.first).first;
    });
  }

  void get(const String& name) {
    const auto record = exact_.find(name);
    handlers_.emplace(name, record != exact_.end() ? record->second : shortestPrefix(name).second);
  }

  Lines listing() const {
    Lines lines;
    const auto add = [&](const char* section, const Entries& entries, const char* star) {
      for (const auto& [name, levels] : entries) {
        lines.push_back(section + name + star + '/' + (levels == 1023 ? "*" : ""));
        for (int i = 0; i < 10 && levels != 1023; ++i)
          if (levels & (1U << i)) lines.back() += std::to_string(i);
      }
    };
    add("Handlers:", handlers_, "");
    add("Specific:", exact_, "");
    add("Wildcard:", wildcards_, "*");
    std::sort(lines.begin(), lines.end());
    return lines;
  }

 private:
  static bool hit(const String& other, const String& name, bool wildcard) {
    return wildcard ? other.starts_with(name) : other == name;
  }
  template <typename Change>
  void forEach(const String& name, bool wildcard, Change change) {
    for (Entries* entries : {&wildcards_, &exact_, &handlers_})
      for (auto& [other, levels] : *entries)
        if (hit(other, name, wildcard) && (wildcard || entries != &wildcards_)) change(levels);
  }
  std::pair<bool, unsigned> shortestPrefix(const String& name) const {
    for (size_t size = 0; size <= name.size(); ++size) {
      const auto found = wildcards_.find(name.substr(0, size));
      if (found != wildcards_.end()) return {true, found->second};
    }
    return {false, 0};
  }

  Entries exact_, wildcards_, handlers_;
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
      const unsigned bits = random() % 12 == 0 ? 1023 : random() & random() & 1023;
      String spec = name + (wildcard ? "*/" : "/") + (bits == 1023 ? "*" : "");
      for (int level = 0; level < 10; ++level)
        if (bits & (1U << level)) spec += std::to_string(level);
      const auto what = random() % 4;
      if (what == 0) {
        kept.push_back(getDebugHandler(name));
        model.get(name);
      } else {
        what == 1 ? setupTarvoDebug(spec.c_str()) : clearTarvoDebug(spec.c_str());
        what == 1 ? model.set(name, bits, wildcard) : model.clear(name, bits, wildcard);
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
