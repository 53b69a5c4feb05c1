#include <fmt/format.h>

#include "ReportTable.h"
#include "ReportText.h"

namespace report {

namespace {

Topic running() {
  return {
      "running",
      "Running a piece of work",
      "One run of the same work, again and again, on a loop that has nothing else to do.",
      {{"one task",
        {{"Tarvo root", "RootTaskRun"}},
        {{"libevent callback", "LibeventCallback"},
         {"libuv idle", "LibuvIdle"},
         {"libev idle", "LibevIdle"},
         {"glib idle", "GlibIdle"},
         {"asio post", "AsioPost/alone/1"},
         {"asio post, descriptor", "AsioPost/withReactor/1"}}},
       {"one member of a group",
        {{"Tarvo group", "GroupMemberRun/1"}},
        {{"asio post", "AsioPost/alone/1"}, {"asio post, descriptor", "AsioPost/withReactor/1"}}},
       {"100 members of a group",
        {{"Tarvo group", "GroupMemberRun/100"}},
        {{"asio post, descriptor", "AsioPost/withReactor/100"}}},
       {"2 runnable tasks, two priorities", {{"Tarvo root", "RootTaskRunOfMany/2"}}, {}},
       {"100 runnable tasks, three priorities", {{"Tarvo root", "RootTaskRunOfMany/100"}}, {}},
       {"10,000 runnable tasks, three priorities", {{"Tarvo root", "RootTaskRunOfMany/10000"}}, {}},
       {"schedule and unschedule", {{"Tarvo", "ScheduleUnschedule"}}, {}}}};
}

Topic controls() {
  return {"controls",
          "Handlers on the loop",
          "A callback that asks for its next call, and a byte sent and read.",
          {{"callback", {{"Tarvo", "CallbackRearmed"}}, {{"libevent", "LibeventRearmed"}}},
           {"descriptor", {{"Tarvo", "FdControlRead"}}, {{"libevent", "LibeventPersistRead"}}}}};
}

Topic descriptors() {
  Topic topic{"descriptors",
              "Descriptors",
              "Bytes travel around a ring of connections; one event is a read and a write besides "
              "what the loop does.",
              {}};
  for (const auto* point : {"100/1", "100/50", "1000/1", "1000/100"}) {
    const std::string at = point;
    const auto slash = at.find('/');
    const auto row = [&](const char* name) { return fmt::format("{}/{}", name, at); };
    topic.cases.push_back(
        {fmt::format("{} connections, {} under way", at.substr(0, slash), at.substr(slash + 1)),
         {{"Tarvo task", row("TarvoFdTask")}, {"Tarvo control", row("TarvoFdControl")}},
         {{"libevent", row("LibeventPersist")},
          {"libuv", row("LibuvPoll")},
          {"asio", row("AsioWait")},
          {"bare epoll", row("EpollLevel")}}});
  }
  return topic;
}

/// A topic with a case for each number of timers; `pattern` takes the backend and the number.
Topic timers(const char* file, const char* title, const char* text, const char* pattern,
             std::vector<Bar> peers) {
  Topic topic{file, title, text, {}};
  for (const auto n : timerSizes) {
    const auto row = [&](const std::string& backend) {
      return fmt::format(fmt::runtime(pattern), backend, n);
    };
    Case one{fmt::format("{} pending", count(static_cast<double>(n))),
             {{"Tarvo wheel", row("TarvoWheel")}},
             {}};
    for (const Bar& peer : peers) one.peers.push_back({peer.label, row(peer.row)});
    topic.cases.push_back(one);
  }
  return topic;
}

std::vector<Topic> allTimers() {
  const std::vector<Bar> heaps{
      {"libevent heap", "LibeventHeap"}, {"libev", "Libev"}, {"libuv", "Libuv"}, {"asio", "Asio"}};
  auto withCommon = heaps;
  withCommon.insert(withCommon.begin() + 1, {"libevent common", "LibeventCommon"});
  return {timers("timer-start-stop", "Timers: stop and start",
                 "One stop and one start of any of the pending timers.", "StartStop<{}>/{}", heaps),
          timers("timer-rearm", "Timers: re-arm",
                 "Any of the pending timers gets a new delay, each time another one.",
                 "(Rearm<{}, false>)/{}", heaps),
          timers("timer-rearm-equal", "Timers: re-arm with equal delays",
                 "As before, but all delays are equal, which libevent has queues for.",
                 "(Rearm<{}, true>)/{}", withCommon),
          timers("timer-expire", "Timers: expiry",
                 "All timers are due at once; time for each of them.", "Expire<{}>/{}", heaps)};
}

Topic timerTasks() {
  Topic topic{
      "timer-tasks", "Timer tasks: restart", "Any of the pending timer tasks is restarted.", {}};
  for (const auto n : timerSizes) {
    const auto row = [&](const char* backend) { return fmt::format("Restart<{}>/{}", backend, n); };
    topic.cases.push_back({fmt::format("{} pending", count(static_cast<double>(n))),
                           {{"Tarvo timer task", row("TimerTasks")}},
                           {{"libevent heap", row("LibeventHeap")}, {"asio", row("AsioTimers")}}});
  }
  return topic;
}

Topic traces() {
  return {
      "traces",
      "Traces",
      "One statement. To a file, each writer hands each line to the system at once.",
      {{"disabled", {{"Tarvo", "TraceDisabled"}}, {{"load and test", "BareLoadAndTest"}}},
       {"to a file",
        {{"Tarvo", "TraceToFile"}},
        {{"spdlog", "SpdlogToFile"}, {"glog", "GlogToFile"}, {"one write", "OneWriteToFile"}}},
       {"to /dev/null",
        {{"Tarvo", "TraceToNull"}},
        {{"spdlog", "SpdlogToNull"}, {"glog", "GlogToNull"}, {"one write", "OneWriteToNull"}}}}};
}

Topic errors() {
  Topic topic{"errors",
              "Exceptions and backtraces",
              "At the given depth of the stack: a throw that is caught above all frames, the mere "
              "construction, and a backtrace. Tarvo's exceptions carry a backtrace.",
              {}};
  for (const int depth : {10, 50, 100}) {
    const auto row = [depth](const char* name) { return fmt::format("{}/{}", name, depth); };
    topic.cases.push_back({fmt::format("throw and catch, {} frames", depth),
                           {{"Tarvo", row("ThrowAndCatch<Tarvo::RuntimeException>")}},
                           {{"std", row("ThrowAndCatch<std::runtime_error>")}}});
    topic.cases.push_back({fmt::format("construct, {} frames", depth),
                           {{"Tarvo", row("ConstructException<Tarvo::RuntimeException>")}},
                           {{"std", row("ConstructException<std::runtime_error>")}}});
    topic.cases.push_back(
        {fmt::format("first what(), {} frames", depth), {{"Tarvo", row("ExceptionWhat")}}, {}});
    topic.cases.push_back({fmt::format("backtrace, {} frames", depth),
                           {{"Tarvo", row("BacktraceCapture")}},
                           {{"unw_backtrace", row("UnwBacktrace")}}});
  }
  return topic;
}

Topic locks() {
  return {"locks",
          "Locks",
          "Lock and unlock of a lock that nobody else wants.",
          {{"plain",
            {{"Tarvo", "LockAndUnlock<Tarvo::Locking::Lock>"}},
            {{"std::mutex", "LockAndUnlock<std::mutex>"}}},
           {"recursive",
            {{"Tarvo", "LockAndUnlock<Tarvo::Locking::RecursiveLock>"}},
            {{"pthread", "LockAndUnlock<RecursivePthreadMutex>"}}}}};
}

Topic strings() {
  Topic topic{"strings", "Names and hashes", "", {}};
  for (const int n : {1, 1'000, 1'000'000}) {
    topic.cases.push_back({fmt::format("intern a known name among {}", count(n)),
                           {{"Tarvo", fmt::format("InternString/{}", n)}},
                           {{"std::unordered_set", fmt::format("InternStdUnorderedSet/{}", n)}}});
  }
  topic.cases.push_back(
      {"copy of a name", {{"Tarvo", "CopyConstStringRef"}}, {{"shared_ptr", "CopySharedString"}}});
  for (const int bytes : {8, 64, 1024}) {
    topic.cases.push_back({fmt::format("hash of {} bytes", bytes),
                           {{"Tarvo", fmt::format("UtilHash/{}", bytes)}},
                           {{"std::hash", fmt::format("StdHash/{}", bytes)}}});
  }
  return topic;
}

Topic moments() {
  return {"moments",
          "Clock and history",
          "",
          {{"read the clock", {{"Tarvo", "LibraryClock"}}, {{"steady_clock", "SteadyClock"}}},
           {"one event of the history", {{"Tarvo", "HistoryInsert"}}, {}}}};
}

Topic reports() {
  return {"reports",
          "Reports of 10,000 tasks",
          "Beside them the JSON library alone, which writes the same document.",
          {{"one report",
            {{"Tarvo JSON", "Json"}, {"Tarvo text", "Text"}, {"Tarvo Prometheus", "Prometheus"}},
            {{"JSON library", "JsonLibraryAlone"}}}}};
}

}  // namespace

std::vector<Topic> topics() {
  std::vector<Topic> all{running(), controls(), descriptors()};
  for (auto& topic : allTimers()) all.push_back(std::move(topic));
  for (auto& topic : {timerTasks(), traces(), errors(), locks(), strings(), moments(), reports()}) {
    all.push_back(topic);
  }
  return all;
}

}  // namespace report
