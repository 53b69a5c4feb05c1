#include "Tarvo/DebugControl.h"

#include <iostream>
#include <string_view>

#include "Tarvo/Allocator.h"
#include "Tarvo/Loco.h"
#include "Tarvo/Trace.h"
#include "foundation/Registry.h"
#include "trace/DisplayLevels.h"

namespace Tarvo::Orl {

DebugControl::ExactMap* DebugControl::debugsMap_ = nullptr;
DebugControl::WildcardMap* DebugControl::wildCardDebugsMap_ = nullptr;

namespace {

/// Calls `use` for every entry of an ordered map whose key begins with `prefix`.
template <typename Map, typename Use>
void forEachWithPrefix(Map& map, const String& prefix, Use use) {
  for (auto entry = map.lower_bound(prefix);
       entry != map.end() && entry->first.starts_with(prefix);) {
    const auto current = entry++;  // `use` may erase the entry
    use(current->second);
  }
}

/// Removes a record from its map, if it is there: of two records with one name only the first is.
template <typename Map>
void remove(Map& map, const String& name, const DebugControl* control) {
  const auto found = map.find(name);
  if (found != map.end() && found->second == control) Impl::removeEntry(map, found);
}

constexpr std::uint16_t without(std::uint16_t levels, std::uint16_t bits) {
  return static_cast<std::uint16_t>(levels & ~bits);
}

}  // namespace

DebugControl::DebugControl(const String& name, std::uint16_t levels, bool wildcard)
    : name_(name), levels_(levels), wildcard_(wildcard) {
  TARVO_CHECK(Tarvo::Platform::loco().owns_lock() && "DebugControl::DebugControl() no loco");
  initialize();
  if (wildcard_) {
    Impl::addEntry(*wildCardDebugsMap_, name_, this);
  } else {
    Impl::addEntry(*debugsMap_, name_, this);
  }
}

void* DebugControl::operator new(std::size_t size) { return ::operator new(size); }
void DebugControl::operator delete(void* memory) { ::operator delete(memory); }

void DebugControl::operator delete(DebugControl* record, std::destroying_delete_t) {
  record->~DebugControl();
  ::operator delete(record);
}

DebugControl::~DebugControl() {
  TARVO_CHECK(Tarvo::Platform::loco().owns_lock() && "DebugControl::~DebugControl() no loco");
  if (wildcard_) {
    remove(*wildCardDebugsMap_, name_, this);
  } else {
    remove(*debugsMap_, name_, this);
  }
}

void DebugControl::initialize() {
  TARVO_CHECK(Tarvo::Platform::loco().owns_lock() && "DebugControl::initialize() no loco");
  DebugHandler::initialize();
  if (debugsMap_ == nullptr) {
    debugsMap_ = new ExactMap;
    wildCardDebugsMap_ = new WildcardMap;
  }
}

String DebugControl::parseName(const String& text, bool& wildcard) {
  wildcard = text.ends_with('*');
  return text.substr(0, text.size() - (wildcard ? 1 : 0));
}

std::uint16_t DebugControl::parseLevels(const String& text) {
  unsigned bits = 0;
  for (const char c : text) {
    if (c >= '0' && c <= '9') bits |= 1U << (c - '0');
    if (c == '*') bits |= Impl::allLevels;
  }
  return static_cast<std::uint16_t>(bits);
}

DebugControl* DebugControl::findWildcard(String name) {
  TARVO_CHECK(Tarvo::Platform::loco().owns_lock() && "DebugControl::findWildcard() no loco");
  initialize();
  // Looks up each prefix of the name, the shortest first: a name is short, while there may be many
  // records.
  const std::string_view text = name;
  for (std::size_t size = 0; size <= text.size(); ++size) {
    const auto found = wildCardDebugsMap_->find(text.substr(0, size));
    if (found != wildCardDebugsMap_->end()) return found->second;
  }
  return nullptr;
}

std::uint16_t DebugControl::wildcardLevels(const String& name) {
  const DebugControl* wildcard = findWildcard(name);
  return wildcard != nullptr ? wildcard->levels_ : std::uint16_t{0};
}

std::shared_ptr<DebugHandler> DebugControl::get(const String& name, bool) {
  bool wildcard = false;
  const String handleName = parseName(name, wildcard);
  if (wildcard) {
    std::cerr << "Tarvo::Debug - Warning"
              << " - Wild card specifier ignored getting handler for " << name << " using "
              << handleName << std::endl;
  }
  Platform::LocoGuard guard;
  initialize();
  const auto exact = debugsMap_->find(handleName);
  const int levels =
      exact != debugsMap_->end() ? exact->second->levels_ : wildcardLevels(handleName);
  return std::allocate_shared<DebugHandler>(Allocator<DebugHandler>(), handleName, levels, false);
}

void DebugControl::set(const String& name, const String& levels) {
  bool wildcard = false;
  const String key = parseName(name, wildcard);
  const std::uint16_t bits = parseLevels(levels);
  Platform::LocoGuard guard;
  initialize();
  if (wildcard) {
    setWildcard(key, bits);
  } else {
    setExact(key, bits);
  }
}

void DebugControl::setExact(const String& name, std::uint16_t bits) {
  const auto known = debugsMap_->find(name);
  DebugControl* record = known != debugsMap_->end()
                             ? known->second
                             : new DebugControl(name, wildcardLevels(name), false);
  record->levels_ |= bits;
  const auto [begin, end] = DebugHandler::handlerMap_->equal_range(name);
  for (auto entry = begin; entry != end; ++entry) {
    if (!entry->second->levelsFixed_) entry->second->changeLevels(record->levels_, 0);
  }
}

// A new wildcard starts with the levels of the shorter one that matched so far: otherwise adding a
// level for a longer prefix would switch off those that the shorter one has switched on.
void DebugControl::setWildcard(const String& prefix, std::uint16_t bits) {
  const auto known = wildCardDebugsMap_->find(prefix);
  DebugControl* record = known != wildCardDebugsMap_->end()
                             ? known->second
                             : new DebugControl(prefix, wildcardLevels(prefix), true);
  record->levels_ |= bits;
  const std::uint16_t added = record->levels_;
  forEachWithPrefix(*wildCardDebugsMap_, prefix,
                    [added](DebugControl* control) { control->levels_ |= added; });
  for (const auto& [name, control] : *debugsMap_) {
    if (name.starts_with(prefix)) control->levels_ |= added;
  }
  forEachWithPrefix(*DebugHandler::handlerMap_, prefix, [added](DebugHandler* handler) {
    if (!handler->levelsFixed_) handler->changeLevels(added, 0);
  });
}

void DebugControl::clear(const String& name, const String& levels) {
  bool wildcard = false;
  const String key = parseName(name, wildcard);
  const std::uint16_t bits = parseLevels(levels);
  Platform::LocoGuard guard;
  initialize();
  if (wildcard) {
    clearWildcard(key, bits);
  } else {
    clearExact(key, bits);
  }
}

void DebugControl::clearExact(const String& name, std::uint16_t bits) {
  const auto known = debugsMap_->find(name);
  const DebugControl* wildcard = findWildcard(name);
  if (known != debugsMap_->end()) {
    DebugControl* record = known->second;
    record->levels_ = without(record->levels_, bits);
    // An empty record stays if a wildcard matches: for later handlers it overrides the wildcard.
    if (record->levels_ == 0 && wildcard == nullptr) delete record;
  } else if (wildcard != nullptr) {
    // This handler is never destroyed, on purpose. Only the listing shows it.
    new DebugHandler(name, without(wildcard->levels_, bits), false);
  }
  const auto [begin, end] = DebugHandler::handlerMap_->equal_range(name);
  for (auto entry = begin; entry != end; ++entry) {
    if (!entry->second->levelsFixed_) entry->second->changeLevels(0, bits);
  }
}

void DebugControl::clearWildcard(const String& prefix, std::uint16_t bits) {
  forEachWithPrefix(*wildCardDebugsMap_, prefix, [bits](DebugControl* control) {
    control->levels_ = without(control->levels_, bits);
  });
  // Erase all empty wildcards first: whether an empty exact record stays depends on the wildcards
  // that are left.
  for (auto entry = wildCardDebugsMap_->begin(); entry != wildCardDebugsMap_->end();) {
    const DebugControl* control = entry++->second;
    if (control->levels_ == 0) delete control;
  }
  for (auto entry = debugsMap_->begin(); entry != debugsMap_->end();) {
    DebugControl* control = entry++->second;
    if (!control->name_.starts_with(prefix)) continue;
    control->levels_ = without(control->levels_, bits);
    if (control->levels_ == 0 && findWildcard(control->name_) == nullptr) delete control;
  }
  forEachWithPrefix(*DebugHandler::handlerMap_, prefix, [bits](DebugHandler* handler) {
    if (!handler->levelsFixed_) handler->changeLevels(0, bits);
  });
}

String DebugControl::displayString() const {
  return name_ + (wildcard_ ? "*/" : "/") + Impl::displayLevels(levels_);
}

void DebugControl::printAll() {
  Platform::LocoGuard guard;
  initialize();
  std::cout << "Specific:\n";
  for (const auto& entry : *debugsMap_) {
    std::cout << "    " << entry.second->displayString() << "\n";
  }
  std::cout << "Wildcard:\n";
  for (const auto& entry : *wildCardDebugsMap_) {
    std::cout << "    " << entry.second->displayString() << "\n";
  }
  std::cout << std::flush;
}

}  // namespace Tarvo::Orl
