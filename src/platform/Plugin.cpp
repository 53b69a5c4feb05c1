#include "Tarvo/Plugin.h"

#include <dlfcn.h>

#include <exception>
#include <unordered_map>
#include <utility>

#include "Tarvo/Loco.h"
#include "foundation/Registry.h"
#include "platform/TraceHandles.h"

namespace Tarvo::Platform {

using Impl::pluginTrace;

namespace {

// REQUIRES: the global lock. Never destroyed: plug-ins may be looked up while the process exits.
std::unordered_map<String, Plugin*>& registry() {
  static auto& map = *new std::unordered_map<String, Plugin*>;
  return map;
}

Plugin* find(const String& name) {
  const auto found = registry().find(name);
  return found != registry().end() ? found->second : nullptr;
}

/// A dlopen() under way on this thread. An exception must not cross the dynamic loader, so it is
/// stored here and thrown again when dlopen() has returned.
class Loading {
 public:
  Loading() : outer_(std::exchange(innermost_, this)) {}
  Loading(const Loading&) = delete;
  Loading& operator=(const Loading&) = delete;
  ~Loading() { innermost_ = outer_; }

  /// Returns whether the library could be opened. Throws the exception that an initialiser has
  /// stored.
  bool open(const char* file) {
    const bool opened = dlopen(file, RTLD_NOW | RTLD_GLOBAL) != nullptr;
    if (failure_) std::rethrow_exception(failure_);
    return opened;
  }

  /// Call in a catch block: stores the exception for the dlopen() under way, or throws it again
  /// when there is none.
  static void storeOrRethrow() {
    if (innermost_ == nullptr) throw;
    if (!innermost_->failure_) innermost_->failure_ = std::current_exception();
  }

 private:
  static thread_local Loading* innermost_;
  Loading* outer_;
  std::exception_ptr failure_;
};
thread_local Loading* Loading::innermost_ = nullptr;

}  // namespace

void registerPlugin(Plugin* plugin) {
  const LocoGuard guard;
  try {
    TARVO_ASSERT(plugin != nullptr && plugin->name() != nullptr, "a plug-in without a name");
    const String name = plugin->name();
    TARVO_ASSERT(find(name) == nullptr, "Plugin {} already registered", name);
    TARVO_TRACE(pluginTrace, 2, "adding plugin {}", name);
    Impl::addEntry(registry(), name, plugin);
  } catch (...) {
    Loading::storeOrRethrow();
  }
}

Plugin* loadPlugin(const char* name) {
  const LocoGuard guard;
  try {
    TARVO_ASSERT(name != nullptr, "the name of a plug-in must not be null");
    if (Plugin* plugin = find(name)) {
      TARVO_TRACE(pluginTrace, 3, "{} already loaded", name);
      return plugin;
    }
    const String file = fmt::format("lib{}.so", name);
    if (Loading loading; !loading.open(file.c_str())) {
      TARVO_TRACE(pluginTrace, 0, "Failed to load plugin {}: {}", file, dlerror());
      return nullptr;
    }
    Plugin* plugin = find(name);
    TARVO_ASSERT(plugin != nullptr, "Phooey -- plugin {} failed to register", name);
    TARVO_TRACE(pluginTrace, 2, "Yay!  Plugin {} loaded", name);
    return plugin;
  } catch (...) {
    Loading::storeOrRethrow();
    return nullptr;
  }
}

}  // namespace Tarvo::Platform
