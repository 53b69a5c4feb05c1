#include "Tarvo/ConstString.h"

#include <ostream>

#include "Tarvo/Assert.h"

namespace Tarvo {

void ConstStringRef::Elem::freeElem() const { cache_->eraseElem(*this); }

ConstStringRef::ConstStringRef(ConstStringCache& cache, std::string_view text)
    : ConstStringRef(cache.intern(text)) {}

const String& ConstStringRef::text() const {
  static const auto& empty = *new String;  // never destroyed: it may be printed during exit
  return elem_ != nullptr ? elem_->text() : empty;
}

std::ostream& operator<<(std::ostream& out, const ConstStringRef& string) {
  return out << string.text();
}

ConstStringCache::~ConstStringCache() {
  Impl::checkInDestructor(
      [this] { TARVO_ASSERT(elems_.empty(), "Destroying ConstStringCache with open references"); });
}

ConstStringRef ConstStringCache::find(std::string_view text) const {
  const auto found = elems_.find(text);
  return found == elems_.end() ? ConstStringRef() : ConstStringRef(*found);
}

const ConstStringRef::Elem& ConstStringCache::intern(std::string_view text) {
  if (const auto found = elems_.find(text); found != elems_.end()) return *found;
  return *elems_.emplace(*this, text).first;
}

void ConstStringCache::eraseElem(const Elem& elem) {
  const auto found = elems_.find(elem.text());
  TARVO_ASSERT(found != elems_.end() && &*found == &elem, "\"{}\" is not in its cache",
               elem.text());
  elems_.erase(found);
}

}  // namespace Tarvo
