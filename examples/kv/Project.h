#ifndef TARVO_EXAMPLES_KV_PROJECT_H
#define TARVO_EXAMPLES_KV_PROJECT_H

#include <iosfwd>
#include <string>
#include <vector>

namespace kv {

struct File {
  std::string name;  // fit for a key, and its own
  std::string contents;
};

/// Reads the files whose paths `list` names, one a line. Leaves out what cannot be read or is too
/// large for the service, and what is beyond some megabytes altogether.
std::vector<File> readFiles(std::istream& list);

}  // namespace kv

#endif
