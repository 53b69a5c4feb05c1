#ifndef TARVO_PLUGIN_H
#define TARVO_PLUGIN_H

/// Shared libraries that are loaded by a short name and register themselves while they load.
///
/// The author of "libgreeter.so" writes:
///
///     class Greeter : public GreeterInterface {   // derives from Tarvo::Platform::Plugin
///       const char* name() override { return "greeter"; }
///     };
///     Greeter greeter;
///     const bool registered = (Tarvo::Platform::registerPlugin(&greeter), true);
///
/// and its user:
///
///     auto* plugin = Tarvo::Platform::loadPlugin("greeter");   // null when there is none
///
/// Initialisers run inside dlopen(), and an exception that crosses the dynamic loader leaves it
/// locked for ever. So when registration fails inside loadPlugin(), registerPlugin() stores the
/// exception and returns, the library's other initialisers run, and loadPlugin() throws. If an
/// initialiser calls loadPlugin() and that fails, it returns null there and the outer loadPlugin()
/// throws. A program that calls dlopen() itself has no such protection.
///
/// Both operations hold the global lock throughout. So the global lock is taken before the dynamic
/// loader's own lock. A program that calls dlopen() itself, for a library whose initialisers trace,
/// make handles or register plug-ins, must hold a LocoGuard around the dlopen(): otherwise two
/// threads can deadlock. Plug-ins are never unloaded.

#include "Tarvo/Export.h"

namespace Tarvo::Platform {

/// The base class of plug-ins. A user derives an interface of his own from it. The library never
/// deletes a plug-in.
class TARVO_EXPORT Plugin {
 public:
  /// The short name; it must stay valid as long as the plug-in.
  virtual const char* name() = 0;

 protected:
  ~Plugin() = default;
};

/// Adds a plug-in, which stays the caller's. Fails an assertion when its name is taken.
TARVO_EXPORT void registerPlugin(Plugin* plugin);

/// The plug-in of that name. If it is not registered yet, loads "lib<name>.so", which the dynamic
/// loader must find. Null, with a trace line on "TarvoPlugin", when the library cannot be opened.
/// Fails an assertion when the library does not register that name.
TARVO_EXPORT Plugin* loadPlugin(const char* name);

}  // namespace Tarvo::Platform

#endif
