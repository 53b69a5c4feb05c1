#ifndef TARVO_EXAMPLES_GREETER_H
#define TARVO_EXAMPLES_GREETER_H

#include <string>

#include "Tarvo/Plugin.h"

/// What GreeterHost and the plug-ins that it loads agree on.
class Greeter : public Tarvo::Platform::Plugin {
 public:
  virtual std::string greet(const std::string& whom) = 0;

 protected:
  ~Greeter() = default;
};

#endif
