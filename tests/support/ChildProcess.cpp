#include "support/ChildProcess.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace testsupport {

namespace {

std::string closeAndRead(FILE* file) {
  std::string all;
  std::rewind(file);
  for (int c = 0; (c = std::fgetc(file)) != EOF;) all += static_cast<char>(c);
  std::fclose(file);
  return all;
}

}  // namespace

ChildResult runForked(const std::function<int()>& body) {
  FILE* out = std::tmpfile();
  FILE* err = std::tmpfile();
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fileno(out), STDOUT_FILENO);
    dup2(fileno(err), STDERR_FILENO);
    const int code = body();
    std::fflush(nullptr);
    _exit(code);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, WIFSIGNALED(status) ? WTERMSIG(status) : 0,
          closeAndRead(out), closeAndRead(err)};
}

ChildResult runProgram(const std::string& command) {
  const std::string line =
      "exec env -u TRACE -u TRACEFILE -u TRACEFORMAT -u TRACESINK -u TARVO_BACKTRACE_VERBOSITY " +
      command;
  return runForked([&] { return execl("/bin/sh", "sh", "-c", line.c_str(), nullptr); });
}

WaitingChild::WaitingChild(const std::function<void()>& body) {
  int ready[2] = {-1, -1};
  if (pipe2(ready, O_CLOEXEC) != 0) std::abort();
  pid_ = fork();
  if (pid_ == 0) {
    body();
    close(ready[1]);  // as executing another program does
    for (;;) pause();
  }
  close(ready[1]);
  char none = 0;
  if (read(ready[0], &none, 1) != 0) std::abort();
  close(ready[0]);
}

void WaitingChild::kill() const {
  ::kill(pid_, SIGKILL);
  siginfo_t end;
  waitid(P_PID, static_cast<id_t>(pid_), &end, WEXITED | WNOWAIT);
}

void WaitingChild::end() {
  if (pid_ <= 0) return;
  kill();
  waitpid(std::exchange(pid_, -1), nullptr, 0);
}

}  // namespace testsupport
