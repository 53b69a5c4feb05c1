#ifndef TARVO_CHILDPROCESS_H
#define TARVO_CHILDPROCESS_H

/// A task that runs when the child process that it has started has ended.
///
/// 1. start() runs a program as a child. What cannot be had (the program, a folder, a file,
///    descriptors, a process) is told by a RuntimeException with the reason, and then there is no
///    child and no descriptor more than before.
/// 2. The program has its three standard descriptors, as ChildCommand chooses them, and no other
///    one of this process; no signal is blocked or ignored there, and all have their default
///    effect.
/// 3. Through the ends of pipes that takeIn(), takeOut() and takeErr() give, the parent talks to
///    it.
/// 4. When the child has ended, however it came to that, the task is scheduled. At its turn it
///    waits for the child, which costs no time then, and runs taskExecuteEnd(), once. From there
///    start() may be called again, as whoever keeps a service running does.
///
///     struct Convert : Tarvo::ChildProcess {
///       using ChildProcess::ChildProcess;
///       void taskExecuteEnd(const Tarvo::ChildEnd& end) override {
///         if (!end.succeeded()) std::cerr << taskName() << ": " << end.toString() << '\n';
///       }
///     };
///     auto convert = std::make_shared<Convert>(Tarvo::schedulerRootTarvo(),
///                                              Tarvo::TaskPriority::normal, "convert");
///     Tarvo::ChildCommand command{.argv = {"convert", "a.png", "a.jpg"}};
///     command.err = Tarvo::ChildStream::file("/var/log/convert.log", Tarvo::ChildStream::append);
///     convert->start(command);
///
/// SIGCHLD is left alone: a program may handle it and wait for children of its own by their ids.
/// It must not ignore it, nor wait for any child at all (wait(), waitpid(-1)): whoever waits first
/// is told of the end, and here it is then an unknown one.
///
/// A child that still runs when the task is dropped, or its thread ends, runs on. The library then
/// waits for it on a small thread made for that, so that no zombie stays (but where the system has
/// no thread left, which a trace tells). A child that is to go with the task is killed before. A
/// loop with a running child has something to wait for: it does not return by itself. Virtual time
/// does not hurry a child: the clock jumps while it runs.
///
/// A process that forks itself leaves its children to the parent: in the fork running() is false
/// and no body runs; the ends of pipes are there twice, so a reader sees no end of file before both
/// are closed.
///
/// The task is made with std::make_shared and belongs to the thread of the root.

#include <sys/resource.h>
#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Tarvo/Export.h"
#include "Tarvo/Platform.h"
#include "Tarvo/String.h"
#include "Tarvo/Task.h"

namespace Tarvo {

/// What a child gets as one of its standard descriptors.
class TARVO_EXPORT ChildStream {
 public:
  enum Opening : bool { truncate, append };

  /// The parent's own, as at first.
  ChildStream() = default;
  /// /dev/null.
  static ChildStream null();
  /// As input the file is read. As output it is made where it is missing, and emptied or added to.
  /// The parent opens it, so a relative path starts at the parent's folder.
  static ChildStream file(String path, Opening opening = truncate);
  /// A copy of this descriptor of the parent's, which stays the caller's.
  static ChildStream descriptor(int fd);
  /// A pipe, whose other end the parent has.
  static ChildStream pipe();

 private:
  friend class ChildStreams;
  enum class Kind : std::uint8_t { inherited, null, file, descriptor, pipe };

  Kind kind_ = Kind::inherited;
  Opening opening_ = truncate;
  String path_;
  int fd_ = -1;
};

/// What to run. Texts with a zero byte inside are refused.
struct ChildCommand {
  /// The program and its arguments. A name without a slash is looked for in the parent's PATH.
  std::vector<String> argv;
  /// "NAME=value" each; without a value the child has the parent's environment.
  std::optional<std::vector<String>> environment = std::nullopt;
  /// Where it starts; empty for the parent's folder. A relative path in argv[0] starts there.
  String folder = {};
  ChildStream in = {};
  ChildStream out = {};
  ChildStream err = {};
  /// Leads a process group of its own: signals of the terminal do not reach it, and kill(-pid())
  /// reaches all that it starts.
  bool newProcessGroup = false;
};

/// How a child has ended.
struct TARVO_EXPORT ChildEnd {
  int exitCode = -1;  ///< -1 unless it has exited
  int signal = 0;     ///< what killed it, or 0
  bool coreDumped = false;
  /// Time, memory and more of the child and of those that it has waited for; see getrusage(2).
  rusage usage{};

  bool succeeded() const { return exitCode == 0; }
  /// False when the end was told to somebody else; then nothing of it is known here.
  bool known() const { return exitCode >= 0 || signal != 0; }
  /// "exited with 1", "killed by signal 9", "ended, how is not known".
  String toString() const;
};

class TARVO_EXPORT ChildProcess : public Task, private Platform::FdEventHandler {
 public:
  ChildProcess(std::shared_ptr<TaskScheduler> scheduler, TaskPriority priority, String name);
  ~ChildProcess() override;

  /// Starts a child. Fails an assertion while there is one.
  void start(const ChildCommand& command);

  /// The work: the child has ended, and there is none any more.
  virtual void taskExecuteEnd(const ChildEnd& end) = 0;

  /// From start() until taskExecuteEnd() is called.
  bool running() const;
  /// 0 while there is no child. As long as there is one, its id names no other process.
  pid_t pid() const;
  /// Sends a signal, which never reaches another process; false when there is no child. Throws
  /// RuntimeException when the signal does not exist or the child is another user's.
  bool kill(int signal);

  /// The parent's end of each pipe: non-blocking, close-on-exec, and the caller's from then on; -1
  /// when there is none or it was taken. Ends that nobody takes are closed with the next start() or
  /// with the task. Writing where the child has closed its end raises SIGPIPE.
  int takeIn();
  int takeOut();
  int takeErr();

  void taskExecute() override;

 private:
  struct Child;

  void readFdEvent(int fd) override;
  void writeFdEvent(int fd) override;
  void watch(Child& child);
  int takeEnd(unsigned number);

  std::unique_ptr<Child> child_;  // the present or last one
  std::shared_ptr<Platform::FdControl> control_;
};

}  // namespace Tarvo

#endif
