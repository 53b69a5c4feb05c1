#include <gmock/gmock.h>

#include <memory>
#include <vector>

#include "Tarvo/ConstString.h"
#include "Tarvo/HashMix.h"
#include "Tarvo/List.h"

namespace {

using Tarvo::ConstStringCache;
using Tarvo::ConstStringRef;
using testing::ElementsAre;

std::uint32_t step(std::uint32_t state, std::uint32_t word) { return (state ^ word) * 0x01000193; }
std::uint64_t step64(std::uint64_t state, std::uint64_t word) {
  return (state ^ word) * 0x100000001B3;
}

TEST(HashMix, TakesWordsAndFillsTheLastWithZeros) {
  const std::uint32_t start = 0x811C9DC5;
  EXPECT_EQ(Tarvo::Util::hash(""), start);
  EXPECT_EQ(Tarvo::Util::hash("\xff"), step(start, 0xff));
  EXPECT_EQ(Tarvo::Util::hash("abcd"), step(start, 0x64636261));
  EXPECT_EQ(Tarvo::Util::hash("abcdefg"), step(step(start, 0x64636261), 0x676665));
  EXPECT_EQ(Tarvo::Util::hash64("abcdefghi", 9),
            step64(step64(0xCBF29CE484222325, 0x6867666564636261), 0x69));
  const std::uint64_t value = 0x8877665544332211;
  Tarvo::Impl::HashMix<std::uint32_t> narrow(7);
  narrow.mixFixedLen<8>(&value);
  EXPECT_EQ(narrow.value(), step(step(7, 0x44332211), 0x88776655));
  Tarvo::Impl::HashMix<std::uint64_t> wide(7);
  wide.mixFixedLen<2>(&value);
  wide.mix("ab");  // a word of its own
  EXPECT_EQ(wide.value(), step64(step64(7, 0x2211), 0x6261));
}

TEST(ConstString, SharesEqualTextsAndForgetsThemWithTheLastHandle) {
  ConstStringCache cache;
  ConstStringRef kept(cache, "poll");
  {
    const ConstStringRef again(cache, "poll");
    EXPECT_EQ(again, kept);
    EXPECT_EQ(kept.elem()->refCount(), 2U);
    EXPECT_NE(ConstStringRef(cache, "other"), kept);
    EXPECT_EQ(cache.size(), 1U) << "the other is gone already";
  }
  const ConstStringRef& self = kept;
  kept = self;
  EXPECT_EQ(kept.text(), "poll");
  const ConstStringRef* elsewhere = &kept;
  const ConstStringRef moved = std::move(kept);
  EXPECT_EQ(moved.elem()->refCount(), 1U);
  EXPECT_FALSE(*elsewhere);
  EXPECT_EQ(cache.find("poll"), moved);
  EXPECT_FALSE(cache.find("gone"));
}

TEST(ConstString, AHandleThatOutlivesItsCacheIsReported) {
  auto cache = std::make_unique<ConstStringCache>();
  ConstStringRef handle(*cache, "poll");
  EXPECT_DEATH(cache.reset(), "Destroying ConstStringCache with open references");
}

struct Item {
  explicit Item(int v) : value(v) {}
  int value;
  Tarvo::ListLinkNode link;
  Tarvo::BookmarkListLinkNode markedLink;
};

template <typename List>
std::vector<int> valuesOf(const List& list) {
  std::vector<int> values;
  for (const Item& item : list) values.push_back(item.value);
  return values;
}

TEST(List, KeepsOrderAndForgetsDestroyedElements) {
  Tarvo::List<Item, &Item::link> list;
  Tarvo::List<Item, &Item::link> later;
  Item one(1);
  Item three(3);
  list.push_back(one);
  {
    Item two(2);
    list.push_back(two);
    list.push_back(three);
    EXPECT_THAT(valuesOf(list), ElementsAre(1, 2, 3));
  }
  EXPECT_THAT(valuesOf(list), ElementsAre(1, 3));
  Item four(4);
  later.push_back(four);
  later.spliceFront(list);
  EXPECT_TRUE(list.empty());
  EXPECT_THAT(valuesOf(later), ElementsAre(1, 3, 4));
  later.unlink(one);
  later.unlink(one);
  EXPECT_EQ(later.first(), &three);
  EXPECT_DEATH(list.push_back(three),
               "Assertion `!\\( element.\\*ptrToLinkNode \\).isLinked\\(\\)' failed");
}

TEST(BookmarkList, IterationsPassOverBookmarksAndGoOnAtThem) {
  Tarvo::BookmarkList<Item, &Item::markedLink> list;
  Tarvo::BookmarkListLinkNode first(Tarvo::BookmarkListLinkNode::bookmark);
  Tarvo::BookmarkListLinkNode second(Tarvo::BookmarkListLinkNode::bookmark);
  Item one(1);
  auto two = std::make_unique<Item>(2);
  Item three(3);
  list.insertBefore(first, list.end());
  EXPECT_EQ(list.first(), nullptr);
  for (Item* item : {&one, two.get(), &three}) list.push_back(*item);
  auto at = std::next(list.begin());
  EXPECT_EQ(at->value, 2);
  first.unlink();
  list.insertBefore(first, at);
  list.insertBefore(second, at);
  EXPECT_THAT(valuesOf(list), ElementsAre(1, 2, 3));
  two.reset();
  decltype(list)::Iterator resumed(list, first);
  EXPECT_EQ(resumed->value, 3);
  list.unlink(three);
  EXPECT_EQ(decltype(list)::Iterator(list, first), list.end());
}

}  // namespace
