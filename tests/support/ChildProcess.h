#ifndef TARVO_TESTS_SUPPORT_CHILDPROCESS_H
#define TARVO_TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>

namespace testsupport {

struct ChildResult {
  int exitCode = -1;  // -1 when a signal ended the child
  int signal = 0;
  std::string out;
  std::string err;
};

/// Runs `body` in a forked child, which exits with what it returns.
ChildResult runForked(const std::function<int()>& body);

/// Runs `env command`, without the variables that the library reads but for those in the command.
ChildResult runProgram(const std::string& command);

/// A forked child that has run `body`, or has executed another program in it, and waits to be
/// killed.
class WaitingChild {
 public:
  explicit WaitingChild(const std::function<void()>& body);
  ~WaitingChild() { end(); }
  pid_t pid() const { return pid_; }
  void kill() const;  // and leaves it to be waited for
  void end();

 private:
  pid_t pid_;
};

}  // namespace testsupport

#endif
