#ifndef TARVO_PLUGIN_H
#define TARVO_PLUGIN_H

/// Shared libraries that are loaded by a short name and announce themselves while they load.
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
/// When registration fails inside loadPlugin(), the exception does not fly through the dynamic
/// loader, which would leave the loader locked for ever: registerPlugin() returns, the library's
/// other initialisers run, and loadPlugin() throws. A loadPlugin() that fails inside another one's
/// library returns null there, and the outer one throws. A program that opens a plug-in with
/// dlopen() itself has no such protection; there the exception leaves the initialiser.
///
/// Both operations hold the global lock from beginning to end, and leave it free also when they
/// fail. So that lock comes before the dynamic loader's own, under which initialisers run: a
/// program that opens by itself a library whose initialisers trace, make handles or register must
/// hold a LocoGuard around its dlopen(), or its threads can wait for each other for ever. Plug-ins
/// are never unloaded.

#include "Tarvo/Export.h"

namespace Tarvo::Platform {

/// What a plug-in registers. Its users derive from it and add what they need; it is never deleted
/// through this class.
class TARVO_EXPORT Plugin {
 public:
  /// The short name; alive as long as the plug-in.
  virtual const char* name() = 0;

 protected:
  ~Plugin() = default;
};

/// Adds a plug-in, which stays the caller's. Fails an assertion when its name is taken.
TARVO_EXPORT void registerPlugin(Plugin* plugin);

/// The plug-in of that name, loaded from "lib<name>.so" where the dynamic loader finds it unless it
/// is registered already. Null, with a trace line on "TarvoPlugin", when the library cannot be
/// opened. Fails an assertion when the library does not register that name.
TARVO_EXPORT Plugin* loadPlugin(const char* name);

}  // namespace Tarvo::Platform

#endif
