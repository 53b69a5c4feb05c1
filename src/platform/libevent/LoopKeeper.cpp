#include "Tarvo/LoopKeeper.h"

#include "platform/libevent/LoopWakes.h"

namespace Tarvo {

class LoopKeeper::Kept final : public Impl::LoopKeeping {
  void loopEnds() noexcept override {}
};

LoopKeeper::LoopKeeper() : kept_(std::make_unique<Kept>()) {}
LoopKeeper::LoopKeeper(LoopKeeper&&) noexcept = default;
LoopKeeper::~LoopKeeper() = default;

}  // namespace Tarvo
