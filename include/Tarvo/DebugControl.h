#ifndef TARVO_DEBUGCONTROL_H
#define TARVO_DEBUGCONTROL_H

/// The registries behind the trace configuration, for tools that inspect it. The global lock guards
/// all of them. An operation marked "REQUIRES: lock" aborts when the caller does not hold it.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>

#include "Tarvo/Debug.h"
#include "Tarvo/Export.h"
#include "Tarvo/String.h"

namespace Tarvo::Orl {

/// The one concrete trace channel. Registered by name from construction to destruction.
class TARVO_EXPORT DebugHandler : public Platform::DebugHandler {
 public:
  /// REQUIRES: lock. The configuration never changes the levels of a handler with fixed levels.
  DebugHandler(const String& name, int levels, bool levelsFixed);
  /// The same with an enable word of the caller's, which must outlive the handler. enabledIs() then
  /// fails an assertion.
  DebugHandler(const String& name, std::uint32_t* levelsPtr, bool levelsFixed);
  ~DebugHandler() override;

  void enabledIs(unsigned level, bool enable) override;
  void dump(Platform::DebugStream& stream, unsigned level, const char* file, int line,
            const char* func) const override;

  bool levelsFixed() const { return levelsFixed_; }
  /// "name/0123": the name, "+" when the levels are fixed, "/" and the levels that are on.
  String displayString() const;

  /// Makes the registry. Fails an assertion unless the caller holds the global lock.
  static void initialize();
  static void printAll();

 private:
  friend class DebugControl;
  using HandlerMap = std::multimap<String, DebugHandler*>;

  void enter();

  bool levelsFixed_;
  HandlerMap::iterator place_;  // its own entry

  static HandlerMap* handlerMap_;
};

/// One configuration record: the levels of a name, or of all names with a prefix. Made with new, as
/// the configuration deletes it when its last level is cleared.
class TARVO_EXPORT DebugControl {
 public:
  /// REQUIRES: lock. `name` is the prefix, without "*", when `wildcard`.
  DebugControl(const String& name, std::uint16_t levels, bool wildcard);
  DebugControl(const DebugControl&) = delete;
  DebugControl& operator=(const DebugControl&) = delete;
  static void* operator new(std::size_t size);
  static void operator delete(void* memory);  // when construction fails
  /// REQUIRES: lock.
  static void operator delete(DebugControl* record, std::destroying_delete_t);

  /// A new handler for `name`, never fixed whatever the second argument says.
  static std::shared_ptr<DebugHandler> get(const String& name, bool);
  /// Adds the levels to the name, or to every name with the prefix when it ends in "*".
  static void set(const String& name, const String& levels);
  /// Removes them likewise.
  static void clear(const String& name, const String& levels);

  /// The record of the shortest prefix that `name` begins with, or null. REQUIRES: lock.
  static DebugControl* findWildcard(String name);
  /// The name without a trailing "*"; `wildcard` tells whether there was one.
  static String parseName(const String& text, bool& wildcard);
  /// The digits of `text` as bits, "*" as all ten; anything else is passed over.
  static std::uint16_t parseLevels(const String& text);

  /// Makes the registries. REQUIRES: lock.
  static void initialize();
  static void printAll();
  String displayString() const;

 private:
  ~DebugControl();  // so that none stands on a stack

  using ExactMap = std::unordered_map<String, DebugControl*>;
  using WildcardMap = std::map<String, DebugControl*, std::less<>>;

  static void setExact(const String& name, std::uint16_t bits);
  static void setWildcard(const String& prefix, std::uint16_t bits);
  static void clearExact(const String& name, std::uint16_t bits);
  static void clearWildcard(const String& prefix, std::uint16_t bits);
  static std::uint16_t wildcardLevels(const String& name);

  String name_;
  std::uint16_t levels_;
  bool wildcard_;

  static ExactMap* debugsMap_;
  static WildcardMap* wildCardDebugsMap_;
};

}  // namespace Tarvo::Orl

#endif
