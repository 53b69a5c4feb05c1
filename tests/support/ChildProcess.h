#ifndef TARVO_TESTS_SUPPORT_CHILDPROCESS_H
#define TARVO_TESTS_SUPPORT_CHILDPROCESS_H

#include <functional>
#include <string>
#include <vector>

namespace testsupport {

struct ChildResult {
  int exitCode = -1;  // -1 when a signal ended the child
  int signal = 0;
  std::string out;
  std::string err;
};

/// Runs a program to its end. `environment` ("NAME=value") is added to the test's own, from which
/// every variable that the library reads has been removed.
ChildResult runProgram(const std::vector<std::string>& command,
                       const std::vector<std::string>& environment = {});

/// Runs `body` in a forked child, which exits with what it returns.
ChildResult runForked(const std::function<int()>& body);

}  // namespace testsupport

#endif
