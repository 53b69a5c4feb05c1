#include "Tarvo/ConstString.h"
#include "Tarvo/HashMix.h"
#include "Tarvo/List.h"
#include "support/Test.h"

namespace {

using Tarvo::ConstStringRef;

TEST(HashMix, TakesWordsAndFillsTheLastWithZeros) {
  EXPECT_EQ(Tarvo::Util::hash("abcdefg"), 0xF2D69DEB);
  EXPECT_EQ(Tarvo::Util::hash64("abcdefghi", 9), 0xE8F77A2949DB571F);
}

TEST(ConstString, SharesEqualTextsAndForgetsThemWithTheLastHandle) {
  Tarvo::ConstStringCache cache;
  ConstStringRef kept(cache, "poll");
  EXPECT_EQ(ConstStringRef(cache, "poll"), kept);
  EXPECT_NE(ConstStringRef(cache, "other"), kept);
  EXPECT_EQ(cache.size(), 1U) << "the other is gone already";
  const ConstStringRef moved = std::move(kept);
  EXPECT_EQ(moved.elem()->refCount(), 1U);
  EXPECT_EQ(cache.find("poll"), moved);
  EXPECT_DEATH(cache.~ConstStringCache(), "Destroying ConstStringCache with open references");
}

struct Item {
  explicit Item(int v) : value(v) {}
  int value;
  Tarvo::BookmarkListLinkNode link;
};

TEST(BookmarkList, IterationsPassOverBookmarksAndGoOnAtThem) {
  Tarvo::BookmarkList<Item, &Item::link> list;
  using Iterator = decltype(list)::Iterator;
  Tarvo::BookmarkListLinkNode mark(Tarvo::BookmarkListLinkNode::bookmark);
  Item one(1), three(3);
  std::optional<Item> two(2);
  list.insertBefore(mark, list.end());
  EXPECT_EQ(list.first(), nullptr);
  for (Item* item : {&one, &*two, &three}) list.push_back(*item);
  mark.unlink();
  list.insertBefore(mark, std::next(list.begin()));
  EXPECT_EQ(std::next(list.begin())->value, 2);
  two.reset();
  EXPECT_EQ(Iterator(list, mark)->value, 3);
  list.unlink(three);
  EXPECT_EQ(Iterator(list, mark), list.end());
}

}  // namespace
