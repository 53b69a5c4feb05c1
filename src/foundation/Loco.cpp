#include "Tarvo/Loco.h"

namespace Tarvo {

namespace Platform {

Loco::~Loco() = default;

Loco& loco() {
  static auto& instance = *new Tarvo::Loco;
  return instance;
}

LocoGuard::LocoGuard() : loco_(&loco()) { loco_->lock(); }
LocoGuard::~LocoGuard() { loco_->unlock(); }

}  // namespace Platform

void Loco::lock() { lock_.lock(); }
void Loco::unlock() { lock_.unlock(); }
bool Loco::owns_lock() const { return lock_.owns_lock(); }
Loco::~Loco() = default;

}  // namespace Tarvo
