#include <gmock/gmock.h>

#include "Tarvo/ConstString.h"
#include "Tarvo/HashMix.h"
#include "Tarvo/List.h"

namespace {

using Tarvo::ConstStringRef;

TEST(HashMix, TakesWordsAndFillsTheLastWithZeros) {
  EXPECT_EQ(Tarvo::Util::hash(""), 0x811C9DC5);
  EXPECT_EQ(Tarvo::Util::hash("\xff"), 0x7A0B824E);
  EXPECT_EQ(Tarvo::Util::hash("abcdefg"), 0xF2D69DEB);
  EXPECT_EQ(Tarvo::Util::hash64("abcdefghi", 9), 0xE8F77A2949DB571F);
  Tarvo::Impl::HashMix<std::uint64_t> mix(7);
  mix.mixFixedLen<2>("\x11\x22");
  mix.mix("ab");  // a word of its own
  EXPECT_EQ(mix.value(), 0x7374650061C3D019);
}

TEST(ConstString, SharesEqualTextsAndForgetsThemWithTheLastHandle) {
  Tarvo::ConstStringCache cache;
  ConstStringRef kept(cache, "poll");
  EXPECT_EQ(ConstStringRef(cache, "poll"), kept);
  EXPECT_NE(ConstStringRef(cache, "other"), kept);
  EXPECT_EQ(cache.size(), 1U) << "the other is gone already";
  const ConstStringRef& self = kept;
  kept = self;
  EXPECT_EQ(kept.text(), "poll");
  const ConstStringRef moved = std::move(kept);
  EXPECT_EQ(moved.elem()->refCount(), 1U);
  EXPECT_FALSE(self || cache.find("gone"));
  EXPECT_EQ(cache.find("poll"), moved);
  EXPECT_DEATH(cache.~ConstStringCache(), "Destroying ConstStringCache with open references");
}

struct Item {
  explicit Item(int v) : value(v) {}
  int value;
  Tarvo::ListLinkNode link;
  Tarvo::BookmarkListLinkNode markedLink;
};

std::string valuesOf(const auto& list) {
  std::string values;
  for (const Item& item : list) values += std::to_string(item.value);
  return values;
}

TEST(List, KeepsOrderAndForgetsDestroyedElements) {
  Tarvo::List<Item, &Item::link> list;
  Tarvo::List<Item, &Item::link> later;
  Item one(1), three(3), four(4);
  std::optional<Item> two(2);
  for (Item* item : {&one, &*two, &three}) list.push_back(*item);
  EXPECT_EQ(valuesOf(list), "123");
  two.reset();
  later.push_back(four);
  later.spliceFront(list);
  EXPECT_TRUE(list.empty());
  EXPECT_EQ(valuesOf(later), "134");
  later.unlink(one);
  later.unlink(one);
  EXPECT_EQ(later.first(), &three);
  EXPECT_DEATH(list.push_back(three), "isLinked\\(\\)' failed");
}

TEST(BookmarkList, IterationsPassOverBookmarksAndGoOnAtThem) {
  Tarvo::BookmarkList<Item, &Item::markedLink> list;
  Tarvo::BookmarkListLinkNode first(Tarvo::BookmarkListLinkNode::bookmark);
  Tarvo::BookmarkListLinkNode second(Tarvo::BookmarkListLinkNode::bookmark);
  Item one(1), three(3);
  std::optional<Item> two(2);
  list.insertBefore(first, list.end());
  EXPECT_EQ(list.first(), nullptr);
  for (Item* item : {&one, &*two, &three}) list.push_back(*item);
  const auto at = std::next(list.begin());
  first.unlink();
  for (auto* bookmark : {&first, &second}) list.insertBefore(*bookmark, at);
  EXPECT_EQ(valuesOf(list), "123");
  two.reset();
  EXPECT_EQ(decltype(list)::Iterator(list, first)->value, 3);
  list.unlink(three);
  EXPECT_EQ(decltype(list)::Iterator(list, first), list.end());
}

}  // namespace
