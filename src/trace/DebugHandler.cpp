#include <iostream>
#include <string_view>

#include "Tarvo/DebugControl.h"
#include "Tarvo/Loco.h"
#include "Tarvo/Trace.h"
#include "foundation/Registry.h"
#include "trace/DisplayLevels.h"

namespace Tarvo {

namespace Platform {

DebugStream::DebugStream() = default;
DebugStream::~DebugStream() = default;

DebugHandler::DebugHandler(const String& name, std::uint32_t levels, std::uint32_t* levelsPtr)
    : levels_(levels), levelsPtr_(levelsPtr != nullptr ? levelsPtr : &levels_), name_(name) {}
DebugHandler::~DebugHandler() = default;

void DebugHandler::changeLevels(std::uint32_t on, std::uint32_t off) {
  std::atomic_ref<std::uint32_t> word(*levelsPtr_);
  word.fetch_or(on, std::memory_order_relaxed);
  word.fetch_and(~off, std::memory_order_relaxed);
}

void destroyDebugHandler(DebugHandler* handler) {
  LocoGuard guard;
  delete handler;
}

}  // namespace Platform

namespace Orl {

DebugHandler::HandlerMap* DebugHandler::handlerMap_ = nullptr;

DebugHandler::DebugHandler(const String& name, int levels, bool levelsFixed)
    : Platform::DebugHandler(name, static_cast<std::uint32_t>(levels)), levelsFixed_(levelsFixed) {
  enter();
}

DebugHandler::DebugHandler(const String& name, std::uint32_t* levelsPtr, bool levelsFixed)
    : Platform::DebugHandler(name, 0, levelsPtr), levelsFixed_(levelsFixed) {
  enter();
}

void DebugHandler::enter() {
  TARVO_CHECK(Tarvo::Platform::loco().owns_lock() && "DebugHandler::DebugHandler() no loco");
  initialize();
  place_ = Impl::addEntry(*handlerMap_, this->name(), this);
}

DebugHandler::~DebugHandler() {
  Platform::LocoGuard guard;
  Impl::removeEntry(*handlerMap_, place_);
}

void DebugHandler::enabledIs(unsigned level, bool enable) {
  TARVO_ASSERT(ownsLevels(), "Cannot use this with a non-null levelsPtr passed to constructor");
  const std::uint32_t bit = 1U << (level % 32);
  changeLevels(enable ? bit : 0, enable ? 0 : bit);
}

void DebugHandler::dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
                        const char* func) const {
  const std::string_view text = stream.view();
  Platform::dumpDebugMsg(text.data(), static_cast<unsigned>(text.size()), level, this, file, func,
                         line);
}

String DebugHandler::displayString() const {
  return name() + (levelsFixed_ ? "+/" : "/") + Impl::displayLevels(levels());
}

void DebugHandler::initialize() {
  TARVO_ASSERT(Platform::loco().owns_lock(), "no loco");
  if (handlerMap_ == nullptr) handlerMap_ = new HandlerMap;
}

void DebugHandler::printAll() {
  Platform::LocoGuard guard;
  initialize();
  std::cout << "Handlers:\n";
  for (const auto& entry : *handlerMap_) {
    std::cout << "    " << entry.second->displayString() << "\n";
  }
  std::cout << std::flush;
}

}  // namespace Orl

}  // namespace Tarvo
