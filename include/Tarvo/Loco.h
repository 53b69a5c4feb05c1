#ifndef TARVO_LOCO_H
#define TARVO_LOCO_H

/// The global lock: it guards the library's registries (trace configuration, trace output,
/// printers, plug-ins, metrics). It is recursive, so code that holds it may call any function of
/// the library.
///
///     {
///       Tarvo::Platform::LocoGuard guard;
///       ...  // nobody else changes or reads a registry here
///     }

#include "Tarvo/Export.h"
#include "Tarvo/Locking.h"

namespace Tarvo {

namespace Platform {

/// The interface of the global lock.
class TARVO_EXPORT Loco {
 public:
  virtual void lock() = 0;
  virtual void unlock() = 0;
  virtual bool owns_lock() const = 0;
  virtual ~Loco();
};

/// The process-wide lock. In a forked child it is usable at once. Made at the first call and never
/// destroyed, so that static objects may still trace while the process exits.
TARVO_EXPORT Loco& loco();

/// Holds the global lock for its scope.
class TARVO_EXPORT LocoGuard {
 public:
  LocoGuard();
  LocoGuard(const LocoGuard&) = delete;
  LocoGuard& operator=(const LocoGuard&) = delete;
  ~LocoGuard();

 private:
  Loco* loco_;
};

}  // namespace Platform

/// The one implementation.
class TARVO_EXPORT Loco : public Platform::Loco {
 public:
  void lock() override;
  void unlock() override;
  bool owns_lock() const override;
  ~Loco() override;

  /// See RecursiveLock::forkReinit().
  void forkReinit();

 private:
  Locking::RecursiveLock lock_;
};

}  // namespace Tarvo

#endif
