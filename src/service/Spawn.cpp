#include "service/Spawn.h"

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "util/Failed.h"

namespace Tarvo::Impl {

namespace {

void check(int error) { throwOnError("prepare", "a child process", errorCode(error)); }

class Actions {
 public:
  Actions() { check(posix_spawn_file_actions_init(&actions_)); }
  Actions(const Actions&) = delete;
  Actions& operator=(const Actions&) = delete;
  ~Actions() { posix_spawn_file_actions_destroy(&actions_); }

  void enter(const OwnedFd& folder) {
    check(posix_spawn_file_actions_addfchdir_np(&actions_, folder.get()));
  }
  void place(const OwnedFd& fd, int number) {
    check(posix_spawn_file_actions_adddup2(&actions_, fd.get(), number));
  }
  void closeFrom(int number) { check(posix_spawn_file_actions_addclosefrom_np(&actions_, number)); }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

class Attributes {
 public:
  explicit Attributes(bool newGroup) {
    check(posix_spawnattr_init(&attributes_));
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    std::memset(&signals, 0xff, sizeof signals);  // those of the C library too
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setpgroup(&attributes_, 0);  // for the flag: one of its own
    const int flags =
        POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | (newGroup ? POSIX_SPAWN_SETPGROUP : 0);
    posix_spawnattr_setflags(&attributes_, static_cast<short>(flags));
  }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  ~Attributes() { posix_spawnattr_destroy(&attributes_); }
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

/// The texts as the kernel takes them, for as long as they stay where they are.
std::vector<char*> pointers(const std::vector<String>& texts) {
  std::vector<char*> result;
  result.reserve(texts.size() + 1);
  for (const String& text : texts) {
    checkPassable(text);
    result.push_back(const_cast<char*>(text.c_str()));  // which nobody writes to
  }
  result.push_back(nullptr);
  return result;
}

}  // namespace

pid_t spawn(const ChildCommand& command, const ChildStreams& streams) {
  if (command.argv.empty()) throwOnError("start", "a program without a name", errorCode(EINVAL));
  const auto argv = pointers(command.argv);
  const auto own = command.environment ? pointers(*command.environment) : std::vector<char*>();
  const Attributes attributes(command.newProcessGroup);
  Actions actions;
  OwnedFd folder;
  if (!command.folder.empty()) {
    checkPassable(command.folder);
    folder = OwnedFd(open(command.folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!folder) throwOnError("enter", command.folder, errorCode(errno));
    actions.enter(folder);
  }
  for (const int number : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    const OwnedFd& end = streams.childEnd(static_cast<unsigned>(number));
    if (end) actions.place(end, number);
  }
  actions.closeFrom(STDERR_FILENO + 1);
  pid_t pid = 0;
  const int error = posix_spawnp(&pid, argv[0], actions.get(), attributes.get(), argv.data(),
                                 command.environment ? own.data() : environ);
  throwOnError("start", command.argv[0], errorCode(error));
  return pid;
}

}  // namespace Tarvo::Impl
