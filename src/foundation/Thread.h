#ifndef TARVO_SRC_FOUNDATION_THREAD_H
#define TARVO_SRC_FOUNDATION_THREAD_H

namespace Tarvo::Impl {

/// Makes a forked child forget the thread id that its only thread inherited.
void registerThreadForkHandler();

}  // namespace Tarvo::Impl

#endif
