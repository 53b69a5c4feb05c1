#ifndef TARVO_EXAMPLES_KV_COMMANDS_H
#define TARVO_EXAMPLES_KV_COMMANDS_H

#include <string>

#include "Background.h"
#include "Request.h"
#include "Store.h"

namespace kv {

/// Does what requests ask for.
class Commands {
 public:
  Commands(Store& store, Background& background) : store_(store), background_(background) {}

  /// Appends the answer to `out`; false when the request was refused.
  bool execute(const Request& request, std::string& out);

 private:
  bool set(const Request& request, std::string& out);
  void get(const Request& request, std::string& out) const;

  Store& store_;
  Background& background_;
};

}  // namespace kv

#endif
