#include "Tarvo/Loco.h"

#include "foundation/AtFork.h"

namespace Tarvo {

namespace Platform {

Loco::~Loco() = default;

namespace {
Tarvo::Loco& instance() {
  static auto& theLoco = *new Tarvo::Loco;
  return theLoco;
}
}  // namespace

Loco& loco() { return instance(); }

LocoGuard::LocoGuard() : loco_(&loco()) { loco_->lock(); }
LocoGuard::~LocoGuard() { loco_->unlock(); }

}  // namespace Platform

void Loco::lock() { lock_.lock(); }
void Loco::unlock() { lock_.unlock(); }
bool Loco::owns_lock() const { return lock_.owns_lock(); }
Loco::~Loco() = default;
void Loco::forkReinit() { lock_.forkReinit(); }
void Impl::reviveLoco() { Platform::instance().forkReinit(); }

}  // namespace Tarvo
