#include <gmock/gmock-matchers.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <random>
#include <sstream>

#include "Tarvo/Debug.h"
#include "Tarvo/Loco.h"
#include "support/Failure.h"

namespace {

using Tarvo::String;
using Tarvo::Platform::clearTarvoDebug;
using Tarvo::Platform::getDebugHandler;
using Tarvo::Platform::setupTarvoDebug;
using HandlerPtr = std::shared_ptr<Tarvo::Platform::DebugHandler>;

/// The listing's lines that hold `prefix` at the start of a name, in order.
std::vector<String> listing(const String& prefix) {
  std::ostringstream out;
  auto* before = std::cout.rdbuf(out.rdbuf());
  Tarvo::Platform::dumpTarvoDebugMap();
  std::cout.rdbuf(before);
  std::istringstream in(out.str());
  std::vector<String> lines;
  String section;
  for (String line; std::getline(in, line);) {
    if (!line.starts_with(' ')) section = line;
    if (line.starts_with("    " + prefix)) lines.push_back(section + line.substr(4));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

/// The same configuration by brute force, in plain maps.
class Model {
 public:
  void set(const String& name, unsigned bits, bool wildcard) {
    auto& records = wildcard ? wildcards_ : exact_;
    if (!records.count(name)) records[name] = wildcardOf(name).second;
    const unsigned all = records[name] |= bits;
    const auto hit = [&](const String& other) {
      return wildcard ? other.starts_with(name) : other == name;
    };
    if (wildcard) {
      for (auto* map : {&wildcards_, &exact_})
        for (auto& [other, levels] : *map)
          if (hit(other)) levels |= all;
    }
    for (auto& [other, levels] : handlers)
      if (hit(other)) levels |= all;
  }

  void clear(const String& name, unsigned bits, bool wildcard) {
    if (wildcard) {
      for (auto& [other, levels] : wildcards_)
        if (other.starts_with(name)) levels &= ~bits;
      std::erase_if(wildcards_, [](const auto& record) { return record.second == 0; });
      for (auto& [other, levels] : exact_)
        if (other.starts_with(name)) levels &= ~bits;
      std::erase_if(exact_, [&](const auto& record) {
        return record.second == 0 && record.first.starts_with(name) &&
               !wildcardOf(record.first).first;
      });
    } else if (exact_.count(name)) {
      if ((exact_[name] &= ~bits) == 0 && !wildcardOf(name).first) exact_.erase(name);
    } else if (wildcardOf(name).first) {
      handlers.emplace_back(name, wildcardOf(name).second & ~bits);
    }
    for (auto& [other, levels] : handlers)
      if (wildcard ? other.starts_with(name) : other == name) levels &= ~bits;
  }

  void get(const String& name) {
    handlers.emplace_back(name, exact_.count(name) ? exact_[name] : wildcardOf(name).second);
  }

  std::vector<String> listing() const {
    std::vector<String> lines;
    for (const auto& [name, levels] : exact_) lines.push_back("Specific:" + name + show(levels));
    for (const auto& [name, levels] : wildcards_)
      lines.push_back("Wildcard:" + name + "*" + show(levels));
    for (const auto& [name, levels] : handlers) lines.push_back("Handlers:" + name + show(levels));
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  std::vector<std::pair<String, unsigned>> handlers;

 private:
  static String show(unsigned levels) {
    String text = "/";
    if (levels == 1023) return "/*";
    for (unsigned i = 0; i < 10; ++i)
      if (levels & (1U << i)) text += std::to_string(i);
    return text;
  }
  std::pair<bool, unsigned> wildcardOf(const String& name) const {
    std::pair<bool, unsigned> best{false, 0};
    size_t shortest = String::npos;
    for (const auto& [prefix, levels] : wildcards_) {
      if (name.starts_with(prefix) && prefix.size() < shortest) {
        shortest = prefix.size();
        best = {true, levels};
      }
    }
    return best;
  }

  std::map<String, unsigned> exact_;
  std::map<String, unsigned> wildcards_;
};

TEST(DebugConfigTest, AgreesWithANaiveMatcher) {
  for (unsigned seed = 1; seed <= 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 generator(seed);
    const auto random = [&] { return static_cast<unsigned>(generator()); };
    const String root = "m" + std::to_string(seed) + ".";
    const std::vector<String> tails = {"", "a", "ab", "abc", "abd", "b", "ba"};
    Model model;
    std::vector<HandlerPtr> kept;
    for (int step = 0; step < 150; ++step) {
      const String name = root + tails[random() % tails.size()];
      const bool wildcard = random() % 3 == 0;
      unsigned bits = 0;
      String spec = name + (wildcard ? "*/" : "/");
      for (unsigned n = random() % 5; n > 0; --n) {
        const unsigned level = random() % 10;
        bits |= 1U << level;
        spec += std::to_string(level);
      }
      if (random() % 12 == 0) {
        bits = 1023;
        spec += "*";
      }
      switch (random() % 4) {
        case 0:
          kept.push_back(getDebugHandler(name));
          model.get(name);
          break;
        case 1:
          setupTarvoDebug(spec.c_str());
          model.set(name, bits, wildcard);
          break;
        default:
          clearTarvoDebug(spec.c_str());
          model.clear(name, bits, wildcard);
      }
      ASSERT_EQ(listing(root), model.listing()) << "step " << step << " " << spec;
    }
  }
}

TEST(DebugConfigTest, EntriesAreCutAtCommasAndSlashes) {
  const auto handler = getDebugHandler("cut");
  setupTarvoDebug("cut/1-3x/5,,cut2,");
  EXPECT_EQ(handler->levels(), 0b101010U);
  EXPECT_EQ(listing("cut"),
            (std::vector<String>{"Handlers:cut/135", "Specific:cut/135", "Specific:cut2/"}));
  EXPECT_EQ(listing("/"), std::vector<String>{"Specific:/"});  // the empty name between the commas
  clearTarvoDebug("cut/9*,cut2/,/");
  EXPECT_EQ(listing("cut"), std::vector<String>{"Handlers:cut/"});
  clearTarvoDebug(nullptr);
  setupTarvoDebug("");
}

TEST(DebugConfigTest, ClearingKeepsTheHigherBits) {
  const auto handler = getDebugHandler("high");
  handler->enabledIs(33, true);  // modulo 32
  handler->enabledIs(20, true);
  handler->enabledIs(5, true);
  clearTarvoDebug("high/*");
  EXPECT_EQ(handler->levels(), 1U << 20);
}

TEST(DebugConfigTest, FixedHandlersAreLeftAlone) {
  Tarvo::Platform::DebugHandler* fixed = nullptr;
  {
    Tarvo::Platform::LocoGuard guard;
    fixed = new Tarvo::Orl::DebugHandler("fixed", 1, true);
  }
  setupTarvoDebug("fixed/2,fix*/3");
  clearTarvoDebug("fixed/0");
  EXPECT_EQ(fixed->levels(), 1U);
  EXPECT_THAT(listing("fixed"), testing::Contains("Handlers:fixed+/0"));
  Tarvo::Platform::destroyDebugHandler(fixed);
  Tarvo::Platform::destroyDebugHandler(nullptr);
  clearTarvoDebug("fix*/*");
  EXPECT_TRUE(listing("fixed").empty());
}

TEST(DebugConfigTest, HandleNamesAreNotPatterns) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(getDebugHandler("Star*")->name(), "Star");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Tarvo::Debug - Warning - Wild card specifier ignored getting handler for Star* using "
            "Star\n");
}

TEST(DebugConfigTest, RegistriesNeedTheGlobalLock) {
  EXPECT_THAT(testsupport::failureOf([] { Tarvo::Orl::DebugHandler::initialize(); }),
              testing::HasSubstr("DebugHandler::initialize() no loco"));
  EXPECT_DEATH(Tarvo::Orl::DebugControl::initialize(),
               "Assertion `Tarvo::Platform::loco\\(\\).owns_lock\\(\\) && "
               "\"DebugControl::initialize\\(\\) no loco\"' failed");
  EXPECT_DEATH(Tarvo::Orl::DebugControl::findWildcard("x"),
               "DebugControl::findWildcard\\(\\) no loco");
  EXPECT_DEATH(Tarvo::Orl::DebugHandler("x", 0, false), "DebugHandler::DebugHandler\\(\\) no loco");
}

}  // namespace
