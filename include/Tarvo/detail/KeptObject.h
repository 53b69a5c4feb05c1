#ifndef TARVO_DETAIL_KEPTOBJECT_H
#define TARVO_DETAIL_KEPTOBJECT_H

#include <memory>

namespace Tarvo::Impl {

/// A list entry for an object that must live until the thread's loop has returned. The entry is a
/// member of the class that may need it: when an exception is in flight, there may be no memory to
/// allocate one.
struct KeptObject {
  std::shared_ptr<void> object;  // null while the entry is not linked
  KeptObject* next = nullptr;
};

}  // namespace Tarvo::Impl

#endif
