#include "Commands.h"

#include <fmt/format.h>

#include <iterator>

namespace kv {

bool Commands::execute(const Request& request, std::string& out) {
  switch (request.verb) {
    case Request::Verb::set:
      return set(request, out);
    case Request::Verb::get:
      get(request, out);
      break;
    case Request::Verb::del:
      out += store_.erase(request.key) ? "OK\n" : "NONE\n";
      background_.garbageIs(store_.log().garbageBytes());
      break;
    case Request::Verb::count:
      fmt::format_to(std::back_inserter(out), "COUNT {} {}\n", store_.keyCount(),
                     store_.valueBytes());
      break;
    case Request::Verb::background:
      background_.onIs(request.on);
      out += "OK\n";
      break;
  }
  return true;
}

bool Commands::set(const Request& request, std::string& out) {
  if (!store_.set(request.key, request.value, request.timeToLive)) {
    out += "ERROR no room\n";
    return false;
  }
  out += "OK\n";
  background_.garbageIs(store_.log().garbageBytes());
  return true;
}

void Commands::get(const Request& request, std::string& out) const {
  const auto value = store_.get(request.key);
  if (!value) {
    out += "NONE\n";
    return;
  }
  fmt::format_to(std::back_inserter(out), "VALUE {}\n", value->size());
  out += *value;
  out += '\n';
}

}  // namespace kv
