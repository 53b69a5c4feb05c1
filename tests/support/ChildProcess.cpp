#include "support/ChildProcess.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace testsupport {

namespace {

struct Capture {
  std::unique_ptr<FILE, int (*)(FILE*)> file{std::tmpfile(), std::fclose};

  int fd() const { return fileno(file.get()); }
  std::string text() const {
    std::string all;
    char buffer[4096];
    std::rewind(file.get());
    while (const size_t n = std::fread(buffer, 1, sizeof buffer, file.get())) all.append(buffer, n);
    return all;
  }
};

ChildResult runChild(const std::function<void()>& child) {
  const Capture out;
  const Capture err;
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error(std::strerror(errno));
  if (pid == 0) {
    dup2(out.fd(), STDOUT_FILENO);
    dup2(err.fd(), STDERR_FILENO);
    child();
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  ChildResult result;
  if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.out = out.text();
  result.err = err.text();
  return result;
}

}  // namespace

ChildResult runProgram(const std::vector<std::string>& command,
                       const std::vector<std::string>& environment) {
  return runChild([&] {
    for (const char* name : {"TRACE", "TRACEFILE", "TRACEFORMAT", "TARVO_BACKTRACE_VERBOSITY"}) {
      unsetenv(name);
    }
    for (const std::string& entry : environment) putenv(strdup(entry.c_str()));
    std::vector<char*> argv;
    for (const std::string& word : command) argv.push_back(strdup(word.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    std::perror(argv[0]);
  });
}

ChildResult runForked(const std::function<int()>& body) {
  return runChild([&] {
    const int code = body();
    std::fflush(nullptr);
    _exit(code);
  });
}

}  // namespace testsupport
