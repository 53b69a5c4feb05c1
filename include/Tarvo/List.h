#ifndef TARVO_LIST_H
#define TARVO_LIST_H

/// Intrusive doubly linked lists: the link is a member of the element, so that linking and
/// unlinking take constant time and allocate nothing.
///
///     struct Job {
///       Tarvo::ListLinkNode link;
///     };
///     Job job;
///     Tarvo::List<Job, &Job::link> jobs;
///     jobs.push_back(job);
///     for (Job& each : jobs) run(each);
///     jobs.unlink(job);
///
/// A list never owns its elements. Destroying an element removes it from its list; destroying a
/// list unlinks its elements. Through one link an element is in at most one list: linking it twice
/// ends the process.
///
/// A BookmarkList also holds bookmarks: nodes without an element, with which a long iteration keeps
/// its place while elements are added and removed. Iterators skip them.
///
///     Tarvo::BookmarkListLinkNode place(Tarvo::BookmarkListLinkNode::bookmark);
///     list.insertBefore(place, iterator);          // ... runs on, later ...
///     auto next = decltype(list)::Iterator(list, place);
///
/// Not to be used by two threads at once.

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/parent_from_member.hpp>

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "Tarvo/detail/Check.h"

namespace Tarvo {

namespace Impl {
using AutoUnlinkHook =
    boost::intrusive::list_base_hook<boost::intrusive::link_mode<boost::intrusive::auto_unlink>>;
}

/// A link of an element.
class ListLinkNode : public Impl::AutoUnlinkHook {
 public:
  bool isLinked() const { return is_linked(); }
};

/// A link of an element, or a bookmark.
class BookmarkListLinkNode : public Impl::AutoUnlinkHook {
 public:
  enum Kind : std::uint8_t { element = 0, bookmark = 1 };

  explicit BookmarkListLinkNode(Kind kind = element) : kind_(kind) {}

  bool isLinked() const { return is_linked(); }
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

/// The base of both lists. `ptrToLinkNode` is the member of `T` through which it is linked.
template <typename T, typename LinkNode, LinkNode T::*ptrToLinkNode>
class ListImpl {
  using Nodes = boost::intrusive::list<LinkNode, boost::intrusive::constant_time_size<false>>;

 public:
  /// Stands on an element or at the end.
  class Iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    Iterator() = default;
    /// Starts at `node`, or at the first element after it when it is a bookmark. The node must be
    /// in the list.
    Iterator(const ListImpl& list, LinkNode& node) : list_(&list), at_(Nodes::s_iterator_to(node)) {
      if (!node.isLinked()) [[unlikely]]
        TARVO_CHECK_FAILED("node.isLinked()");
      passBookmarks();
    }

    T& operator*() const { return elementOf(*at_); }
    T* operator->() const { return &elementOf(*at_); }
    Iterator& operator++() {
      ++at_;
      passBookmarks();
      return *this;
    }
    Iterator operator++(int) {
      Iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const Iterator& other) const { return at_ == other.at_; }

   private:
    friend class ListImpl;
    using NodeIterator = typename Nodes::iterator;

    Iterator(const ListImpl& list, NodeIterator at) : list_(&list), at_(at) { passBookmarks(); }
    void passBookmarks() {
      while (at_ != list_->nodes_.end() && list_->isBookmark(*at_)) ++at_;
    }

    const ListImpl* list_ = nullptr;
    NodeIterator at_;
  };

  ListImpl() = default;
  ListImpl(const ListImpl&) = delete;
  ListImpl& operator=(const ListImpl&) = delete;

  virtual bool isBookmark(const LinkNode&) const { return false; }

  void push_back(T& element) {
    if ((element.*ptrToLinkNode).isLinked()) [[unlikely]] {
      TARVO_CHECK_FAILED("!( element.*ptrToLinkNode ).isLinked()");
    }
    nodes_.push_back(element.*ptrToLinkNode);
  }

  /// Takes the element out of the list that it is in; harmless when it is in none.
  static void unlink(T& element) {
    if ((element.*ptrToLinkNode).isLinked()) (element.*ptrToLinkNode).unlink();
  }

  /// Puts a bookmark in front of an iterator's element, or at the end.
  void insertBefore(LinkNode& node, const Iterator& where) {
    if (node.isLinked()) [[unlikely]]
      TARVO_CHECK_FAILED("!node.isLinked()");
    nodes_.insert(where.at_, node);
  }

  /// Moves all nodes of `other`, in their order, to the front of this list.
  void spliceFront(ListImpl& other) { nodes_.splice(nodes_.begin(), other.nodes_); }

  /// Null without an element.
  T* first() const {
    const Iterator it = begin();
    return it == end() ? nullptr : &*it;
  }
  /// Whether there is neither an element nor a bookmark.
  bool empty() const { return nodes_.empty(); }

  Iterator begin() const { return Iterator(*this, nodes_.begin()); }
  Iterator end() const { return Iterator(*this, nodes_.end()); }

 protected:
  ~ListImpl() = default;

  LinkNode& front() const { return nodes_.front(); }
  static T& elementOf(LinkNode& node) {
    return *boost::intrusive::get_parent_from_member(&node, ptrToLinkNode);
  }

 private:
  mutable Nodes nodes_;  // a const list gives access to non-const elements
};

template <typename T, ListLinkNode T::*ptrToLinkNode>
class List final : public ListImpl<T, ListLinkNode, ptrToLinkNode> {
 public:
  /// As in the base, but faster: there are no bookmarks to skip.
  T* first() const { return this->empty() ? nullptr : &this->elementOf(this->front()); }
};

template <typename T, BookmarkListLinkNode T::*ptrToLinkNode>
class BookmarkList final : public ListImpl<T, BookmarkListLinkNode, ptrToLinkNode> {
 public:
  bool isBookmark(const BookmarkListLinkNode& node) const override {
    return node.kind() == BookmarkListLinkNode::bookmark;
  }
};

}  // namespace Tarvo

#endif
