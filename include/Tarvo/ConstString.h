#ifndef TARVO_CONSTSTRING_H
#define TARVO_CONSTSTRING_H

/// Interned strings: a cache holds each text once. Copying a handle copies a pointer, and comparing
/// two handles compares pointers.
///
///     Tarvo::ConstStringCache names;
///     const Tarvo::ConstStringRef poll(names, "poll");
///     Tarvo::ConstStringRef(names, "poll") == poll;   // true; one text, held twice
///
/// What happens when:
/// 1. A handle made from a text finds the text in its cache or puts it there.
/// 2. Copies count the text's references up and down; no copy allocates.
/// 3. When the last handle of a text is gone, the cache frees the text.
///
/// A cache owns its texts; a handle does not keep the cache alive. Destroying a cache that still
/// has handles is a programming error and ends the process. A cache and its handles are used by one
/// thread at a time.

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo {

class ConstStringCache;

class TARVO_EXPORT ConstStringRef {
 public:
  /// One interned text.
  class TARVO_EXPORT Elem {
   public:
    Elem(ConstStringCache& cache, std::string_view text) : cache_(&cache), text_(text) {}
    Elem(const Elem&) = delete;
    Elem& operator=(const Elem&) = delete;

    const String& text() const { return text_; }
    std::uint32_t refCount() const { return refCount_; }
    /// Drops a reference. Dropping the last one removes the text from its cache and frees it. Does
    /// nothing when the count is zero already.
    void refCountDec() const {
      if (refCount_ == 0 || --refCount_ > 0) return;
      freeElem();
    }

   private:
    friend class ConstStringRef;

    void refCountInc() const { ++refCount_; }
    void freeElem() const;

    ConstStringCache* cache_;
    String text_;
    mutable std::uint32_t refCount_ = 0;
  };

  /// Refers to nothing; its text is empty.
  ConstStringRef() = default;
  ConstStringRef(ConstStringCache& cache, std::string_view text);
  ConstStringRef(const ConstStringRef& other) noexcept : elem_(other.elem_) { hold(); }
  ConstStringRef(ConstStringRef&& other) noexcept : elem_(std::exchange(other.elem_, nullptr)) {}
  ConstStringRef& operator=(const ConstStringRef& other) {
    if (elem_ == other.elem_) return *this;
    const Elem* old = std::exchange(elem_, other.elem_);
    hold();
    if (old != nullptr) old->refCountDec();
    return *this;
  }
  ConstStringRef& operator=(ConstStringRef&& other) noexcept {
    ConstStringRef(std::move(other)).swap(*this);
    return *this;
  }
  ~ConstStringRef() {
    if (elem_ != nullptr) elem_->refCountDec();
  }

  void swap(ConstStringRef& other) noexcept { std::swap(elem_, other.elem_); }

  /// Whether both are the same interned text.
  bool operator==(const ConstStringRef& other) const = default;
  explicit operator bool() const { return elem_ != nullptr; }
  const String& text() const;
  /// The text behind the handle; null when it refers to nothing.
  const Elem* elem() const { return elem_; }

 private:
  friend class ConstStringCache;

  explicit ConstStringRef(const Elem& elem) : elem_(&elem) { hold(); }

  void hold() const {
    if (elem_ != nullptr) elem_->refCountInc();
  }

  const Elem* elem_ = nullptr;
};

TARVO_EXPORT std::ostream& operator<<(std::ostream& out, const ConstStringRef& string);

class TARVO_EXPORT ConstStringCache {
 public:
  ConstStringCache() = default;
  ConstStringCache(const ConstStringCache&) = delete;
  ConstStringCache& operator=(const ConstStringCache&) = delete;
  ~ConstStringCache();

  /// The handle of a text that is interned already, or one that refers to nothing.
  ConstStringRef find(std::string_view text) const;
  std::size_t size() const { return elems_.size(); }

 private:
  friend class ConstStringRef;
  using Elem = ConstStringRef::Elem;

  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const {
      return std::hash<std::string_view>()(text);
    }
    std::size_t operator()(const Elem& elem) const { return (*this)(elem.text()); }
  };
  struct Equal {
    using is_transparent = void;
    static std::string_view text(const Elem& elem) { return elem.text(); }
    static std::string_view text(std::string_view text) { return text; }
    template <typename Left, typename Right>
    bool operator()(const Left& left, const Right& right) const {
      return text(left) == text(right);
    }
  };

  const Elem& intern(std::string_view text);
  void eraseElem(const Elem& elem);

  std::unordered_set<Elem, Hash, Equal> elems_;
};

}  // namespace Tarvo

template <>
struct std::hash<Tarvo::ConstStringRef> {
  std::size_t operator()(const Tarvo::ConstStringRef& string) const {
    return std::hash<const void*>()(string.elem());
  }
};

#endif
