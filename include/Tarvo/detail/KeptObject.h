#ifndef TARVO_DETAIL_KEPTOBJECT_H
#define TARVO_DETAIL_KEPTOBJECT_H

#include <memory>

namespace Tarvo::Impl {

/// The place of an object that is kept until the thread's loop has returned. Part of whoever may
/// have to keep something, since there may be no memory for it by then.
struct KeptObject {
  std::shared_ptr<void> object;  // null: not in use
  KeptObject* next = nullptr;
};

}  // namespace Tarvo::Impl

#endif
