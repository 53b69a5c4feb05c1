#include <gmock/gmock.h>
#include <rapidjson/document.h>
#include <regex.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <thread>

#include "Tarvo/PrometheusPages.h"
#include "Tarvo/Thread.h"
#include "support/AllocationCount.h"
#include "support/SchedulerFixture.h"

namespace {

using Tarvo::TaskGroup;
using testing::HasSubstr;
using testing::Not;
using testsupport::TaskPriority;
using testsupport::TestTask;
using testsupport::TestTaskPtr;
namespace Platform = testsupport::Platform;

const std::string hostile = "a\n\"\\\t\xff\xc3\xa9";
const std::string shown = "a\n\"\\\t\xEF\xBF\xBD\xc3\xa9";

struct ReportsTest : testsupport::SchedulerFixture {
  ReportsTest() {
    task = member(group, hostile);
    task->scheduleTask();
    member(inner, "gone")->scheduleTask();
    member(inner, "gone");
    Platform::doEventLoop(0.0);
    Platform::doEventLoop(0.0);
  }
  void TearDown() override {
    task.reset();
    inner.reset();
    group.reset();
    SchedulerFixture::TearDown();
  }
  TestTaskPtr member(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler,
                     const std::string& name) {
    return std::allocate_shared<TestTask>(Tarvo::Allocator<TestTask>(), scheduler,
                                          TaskPriority::normal, name, log,
                                          [](TestTask& self) { self.taskWorkCountInc(~0ULL - 5); });
  }
  static rapidjson::Document parsed(const std::string& text) {
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
    EXPECT_FALSE(document.HasParseError()) << text;
    return document;
  }
  static const rapidjson::Value& named(const rapidjson::Value& list, const std::string& name) {
    for (const auto& each : list.GetArray()) {
      if (each["name"].GetString() == name) return each;
    }
    throw std::runtime_error("no " + name);
  }
  std::shared_ptr<TaskGroup> group =
      std::make_shared<TaskGroup>("group", TaskPriority::low, false, root);
  std::shared_ptr<TaskGroup> inner =
      std::make_shared<TaskGroup>("inner", TaskPriority::low, false, group);
  TestTaskPtr task;
};

TEST_F(ReportsTest, TheTableNestsGroupsAndAlignsItsColumns) {
  std::istringstream table(root->statsRenderTextForDebugToString());
  std::vector<std::string> lines;
  for (std::string line; std::getline(table, line);) lines.push_back(line);
  EXPECT_THAT(lines[0], HasSubstr("Scheduler root: up "));
  EXPECT_THAT(lines[2], HasSubstr(" l group "));
  EXPECT_THAT(lines[2] + lines[3] + lines[4] + lines[5],
              testing::AllOf(HasSubstr(" l   inner "), HasSubstr("cn     gone "),
                             HasSubstr(" n   a?\"\\?\xEF\xBF\xBD\xc3\xa9 ")));
  EXPECT_EQ(lines[2].find(" 0 s"), std::string::npos);
  EXPECT_THAT(root->statsRenderTextForDebugToString("go"),
              testing::AllOf(HasSubstr("members of inner\ncn   gone"), Not(HasSubstr(" group "))));
}

TEST_F(ReportsTest, TheTableCountsColumnsAsTerminalsDo) {
  std::string wide, marks = "e";
  for (int i = 0; i < 50; ++i) wide += "\u6F22";
  for (int i = 0; i < 500; ++i) marks += "\u0301";
  const std::string blanks(38, ' ');  // of a row whose name takes one of the 39 columns
  const std::map<std::string, std::string> rows = {
      {wide, wide.substr(0, 57) + "\u2026"},
      {"e\u0301", "e\u0301" + blanks},
      {"\u202Ea\u0085b\u200Bc\u2028d\u0378", "?a?b?c?d?" + blanks.substr(8)},
      {std::string(39, 'x'), std::string(39, 'x')},
      {"\u00B5\u6F22", "\u00B5\u6F22" + blanks.substr(2)}};
  std::vector<TestTaskPtr> tasks = {make(marks)};
  for (const auto& [name, row] : rows) tasks.push_back(make(name));
  const std::string table = root->statsRenderTextForDebugToString();
  for (const auto& [name, row] : rows) EXPECT_THAT(table, HasSubstr(" n " + row + "        0 "));
  EXPECT_THAT(table, Not(HasSubstr(marks))) << "what takes no column is not endless either";
}

TEST_F(ReportsTest, JsonSaysTheSameExactly) {
  const auto document = parsed(root->statsRenderJson());
  EXPECT_STREQ(document["root"].GetString(), "root");
  const auto& schedulers = document["schedulers"];
  const auto& parent = named(named(schedulers, "root")["tasks"], "group");
  const auto& members = named(schedulers, "group");
  EXPECT_STREQ(parent["subScheduler"].GetString(), members["key"].GetString());
  const auto& record = named(members["tasks"], shown);
  EXPECT_EQ(record["workTotal"].GetUint64(), ~0ULL - 5);
  EXPECT_EQ(record["totalRunNs"].GetInt64(), task->getStats().taskTotalRunTime());
  EXPECT_FALSE(record.HasMember("workPendingMost")) << "never reported";
  EXPECT_EQ(named(named(schedulers, "inner")["completed"], "gone")["completedCount"].GetInt(), 2);
  EXPECT_EQ(members["maxSchedulerSlip"].GetInt64(), group->maxSchedulerSlip());
}

/// Reads a page as a strict reader does: each family in one piece, with one head and type, and no
/// series twice.
std::map<std::string, double> seriesOf(const std::string& page) {
  regex_t grammar;
  regcomp(
      &grammar,
      R"(^(# (HELP|TYPE) ([a-z0-9_]+) .+|([a-z0-9_]+)(\{([a-z]+="([^"\]|\\["\n])*",?)+\}) ([0-9.e+-]+))$)",
      REG_EXTENDED);
  std::map<std::string, double> series;
  std::set<std::string> families;
  std::string family, typed;
  std::istringstream lines(page);
  for (std::string each; std::getline(lines, each);) {
    std::array<regmatch_t, 9> parts;
    if (regexec(&grammar, each.c_str(), parts.size(), parts.data(), 0) != 0) {
      ADD_FAILURE() << each;
      continue;
    }
    const auto part = [&](std::size_t i) {
      const auto& [from, to] = parts.at(i);
      return from < 0
                 ? std::string()
                 : each.substr(static_cast<std::size_t>(from), static_cast<std::size_t>(to - from));
    };
    if (part(2) == "HELP") {
      family = part(3);
      EXPECT_TRUE(families.insert(family).second) << each;
    } else if (part(2) == "TYPE") {
      EXPECT_TRUE(part(3) == family && typed != family) << each;
      typed = family;
    } else {
      EXPECT_TRUE(part(4) == family && typed == family) << each;
      EXPECT_TRUE(series.emplace(part(4) + part(5), std::stod(part(8))).second) << each;
    }
  }
  regfree(&grammar);
  return series;
}

TEST_F(ReportsTest, PrometheusAddsUpWhatStandsUnderOneName) {
  const std::string thread = "{root=\"" + Tarvo::threadName() + "\"";
  const auto alike = member(group, "b\xff"), other = member(group, "b\xfe");
  alike->taskWorkPendingIs(3);
  other->taskWorkPendingIs(4);
  const auto series = seriesOf(root->statsRenderPrometheus());
  const std::string labels = thread + ",scheduler=\"group\",task=\"";
  EXPECT_EQ(series.at("tarvo_task_work_pending" + labels + "b\xEF\xBF\xBD\",priority=\"normal\"}"),
            7);
  EXPECT_EQ(series.at("tarvo_tasks" + labels + "b\xEF\xBF\xBD\",priority=\"normal\"}"), 2);
  EXPECT_EQ(series.at("tarvo_task_runs_total" + labels +
                      "a\\n\\\"\\\\\t\xEF\xBF\xBD\xc3\xa9\",priority=\"normal\"}"),
            1);
  EXPECT_EQ(series.at("tarvo_task_completed_total" + thread +
                      ",scheduler=\"inner\",task=\"gone\",priority=\"normal\"}"),
            2);
  EXPECT_EQ(series.at("tarvo_queue_idle" + thread + ",priority=\"low\"}"), 2);
}

TEST_F(ReportsTest, PagesOfSeveralThreadsAreJoined) {
  std::vector<Tarvo::String> pages = {root->statsRenderPrometheus()};
  for (int i = 0; i < 2; ++i) {
    std::thread([&] {
      const std::shared_ptr<void> last(nullptr, [](void*) { Tarvo::leFree(); });
      Tarvo::threadNameIs("worker");
      auto x = std::make_shared<TestTask>(Tarvo::schedulerRootTarvo(), TaskPriority::low, "x", log);
      pages.push_back(Tarvo::schedulerRootTarvo()->statsRenderPrometheus());
      x.reset();
      Tarvo::leFree();
    }).join();
  }
  const auto joined = Tarvo::joinPrometheusPages(pages);
  const auto series = seriesOf(joined);
  std::size_t lines = 0;
  for (const auto& page : pages) lines += seriesOf(page).size();
  EXPECT_EQ(series.size(), lines);
  for (const std::string name : {"worker", "worker#2"}) {
    EXPECT_EQ(series.at("tarvo_tasks{root=\"" + name +
                        "\",scheduler=\"worker\",task=\"x\",priority=\"low\"}"),
              1);
  }
  pages = {pages[1], joined};
  EXPECT_TRUE(seriesOf(Tarvo::joinPrometheusPages(pages))
                  .contains("tarvo_scheduler_suspended{root=\"worker#2#2\"}"));
  for (const char* bad :
       {"# HELP a b\nc{root=\"d\"} 1\n", "# HELP a b\na 1\n", "# HELP a b\na{root=\"d\n",
        "a{root=\"d\"} 1\n", "# HELP a\n", "# HELP a b"}) {
    pages[1] = bad;
    EXPECT_THROW(Tarvo::joinPrometheusPages(pages), Tarvo::RuntimeException) << bad;
  }
}

TEST_F(ReportsTest, ATaskWritesThePrometheusPageByTheLine) {
  const auto before = seriesOf(root->statsRenderPrometheus());
  const int file = memfd_create("page", MFD_CLOEXEC);
  bool done = false;
  const auto snapshot = root->snapshotRenderPrometheusAsync(file, [&](int error, auto) {
    EXPECT_EQ(error, 0);
    done = true;
  });
  snapshot->taskTestYieldRatioIs(1);
  while (!done) Platform::doEventLoop(0.0);
  std::string page(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), ' ');
  EXPECT_EQ(pread(file, page.data(), page.size(), 0), static_cast<ssize_t>(page.size()));
  close(file);
  const auto written = seriesOf(page);
  EXPECT_TRUE(std::ranges::equal(written, before, {}, &std::pair<const std::string, double>::first,
                                 &std::pair<const std::string, double>::first));
  EXPECT_GT(snapshot->taskRunCountWritable(), written.size() / 2);
}

TEST_F(ReportsTest, RunsThatThrewAreToldEverywhere) {
  task->body = [](TestTask&) { throw 1; };
  task->scheduleTask();
  EXPECT_THROW(Platform::doEventLoop(0.0), int);
  EXPECT_THAT(root->statsRenderTextForDebugToString("group"),
              testing::ContainsRegex("pending threw\n L group [^\n]* 1\n"));
  EXPECT_THAT(
      root->statsRenderPrometheus(),
      HasSubstr("scheduler=\"root\",task=\"group\",priority=\"low\"} 1\n# HELP tarvo_task_work"));
  const auto json = parsed(root->statsRenderJson()), timeline = parsed(root->timelineRenderJson());
  EXPECT_EQ(named(named(json["schedulers"], "group")["tasks"], shown)["threw"].GetInt(), 1);
  EXPECT_EQ(std::ranges::count_if(timeline["traceEvents"].GetArray(),
                                  [](const auto& event) {
                                    return event.HasMember("args") &&
                                           event["args"].HasMember("threw");
                                  }),
            2)
      << "the member's run and its parent's";
}

TEST_F(ReportsTest, ATimelineHasRunsThatNestAndWaitsThatEnd) {
  const auto twins = {member(group, "twin"), member(group, "twin"), member(inner, "group")};
  for (const auto& each : twins) each->scheduleTask();
  auto brief = member(inner, "brief");
  brief->taskStatsNameIs("clients");
  brief->scheduleTask();
  for (int pass = 0; pass < 4; ++pass) Platform::doEventLoop(0.0);
  brief.reset();
  const auto document = parsed(root->timelineRenderJson());
  std::map<int, int> open;  // by id
  double lastEnd = 0, lastStart = 0;
  int runs = 0;
  for (const auto& event : document["traceEvents"].GetArray()) {
    const std::string phase = event["ph"].GetString(), name = event["name"].GetString();
    EXPECT_TRUE(!name.ends_with("brief") || event["tid"].GetInt() > 1) << "gone, but known";
    if (phase == "b") ++open[event["id"].GetInt()];
    if (phase == "e") --open[event["id"].GetInt()];
    EXPECT_TRUE(phase != "b" || open[event["id"].GetInt()] == 1) << name;
    if (phase != "X") continue;
    ++runs;
    const double start = event["ts"].GetDouble(), end = start + event["dur"].GetDouble();
    // They stand in the order of their ends: each is inside the next or before it.
    EXPECT_TRUE(end > lastEnd - 0.01 && (start < lastStart + 0.01 || start > lastEnd - 0.01))
        << name;
    lastStart = start;
    lastEnd = end;
    EXPECT_TRUE(name != "twin" || event["tid"].GetInt() != 1);
  }
  EXPECT_EQ(runs, 9) << "of parents, members and twins; what was destroyed was unscheduled";
  int still = 0;
  for (const auto& [id, count] : open) still += count;
  EXPECT_EQ(still, 3) << "all three schedulers are idle";
}

TEST_F(ReportsTest, TimesOfATimelineAreExactAfterYears) {
  using Type = Tarvo::TaskSchedulerEventType;
  root->clearHistory();
  Tarvo::TaskClock::time_point now(std::chrono::hours(24 * 4000) + std::chrono::nanoseconds(7));
  const auto insert = [&](Type type, int later) {
    now += std::chrono::nanoseconds(later);
    root->history().insert(now, type, task.get());
  };
  for (const int length : {3, 1'234'567}) {
    insert(Type::runStart, 0);
    insert(Type::runEnd, length);
  }
  root->history().insert(now - std::chrono::nanoseconds(1'235'000), Type::busy, task.get());
  EXPECT_THAT(root->timelineRenderJson(),
              testing::AllOf(HasSubstr(R"({"oldestEventNs":345600000000000007})"),
                             HasSubstr(R"("ts":0.000,"cat":"run","dur":0.003})"),
                             HasSubstr(R"("ts":0.003,"cat":"run","dur":1234.567})"),
                             HasSubstr(R"("ts":-0.430,)")));
}

TEST_F(ReportsTest, AResetVisitsEverythingOnceAndSaysWhenItIsDone) {
  int hooks = 0;
  struct Hooked : Tarvo::Task {
    Hooked(std::shared_ptr<Tarvo::TaskScheduler> scheduler, std::function<void()> hook)
        : Task(std::move(scheduler), TaskPriority::low, "hooked"), onReset(std::move(hook)) {}
    void taskExecute() override {}
    void handleResetStats() override { onReset(); }
    std::function<void()> onReset;
  };
  std::vector<std::shared_ptr<Hooked>> later;
  const std::function<void()> count = [&] {
    if (++hooks < 9) later.push_back(std::make_shared<Hooked>(root, count));
    EXPECT_TRUE(group->resetStatsInProgress());
    task.reset();
    if (hooks == 2) throw std::runtime_error("bad");
  };
  {
    const std::vector<std::shared_ptr<Hooked>> hooked = {std::make_shared<Hooked>(root, count),
                                                         std::make_shared<Hooked>(group, count),
                                                         std::make_shared<Hooked>(inner, count)};
    bool done = false;
    const auto reset = root->statsResetAsync([&] { done = true; });
    EXPECT_THROW(Platform::doEventLoop(1), std::runtime_error);
    while (!done) Platform::doEventLoop(0.0);
    EXPECT_EQ(hooks, 3) << "not those of what came later";
    later.clear();
  }
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_EQ(root->taskStatForTest("group")->taskRunCount(), 0U);
  EXPECT_FALSE(inner->completedTaskStatForTest("gone"));
}

struct Worker : Tarvo::Task {
  Worker(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler, unsigned kind)
      : Task(scheduler, kind < 4 ? TaskPriority::low : TaskPriority::high,
             fmt::format("w{}", kind % 4)) {}
  void taskExecute() override { ++runs; }
  void handleResetStats() override {
    runs = 0;
    counts = true;
    if (onReset) onReset();
  }
  unsigned runs = 0;
  bool counts = false;
  std::function<void()> onReset;
};

TEST_F(ReportsTest, WhatEndsInTheMiddleOfAWalkIsCountedOnce) {
  task.reset();
  inner.reset();
  group.reset();
  testsupport::SeededRandom random;
  const auto sum = [](const std::string& text, bool runs) {
    unsigned all = 0;
    const auto document = parsed(text);
    for (const char* list : {"tasks", "completed"}) {
      for (const auto& each : document["schedulers"][0][list].GetArray()) {
        if (each["name"].GetString()[0] != 'w') continue;
        const bool completed = each.HasMember("completedCount");
        all += runs ? each["runs"].GetUint() : completed ? each["completedCount"].GetUint() : 1;
      }
    }
    return all;
  };
  for (int round = 0; round < 200; ++round) {
    std::vector<std::shared_ptr<Worker>> workers;
    unsigned expected = 0;
    const auto any = [&] {
      return workers.begin() + random.below(static_cast<unsigned>(workers.size()));
    };
    const auto add = [&] { workers.push_back(std::make_shared<Worker>(root, random.below(8))); };
    const auto end = [&] {
      const auto one = any();
      if ((*one)->counts) expected += (*one)->runs;
      workers.erase(one);
    };
    while (workers.size() < 20) add();
    for (int i = 0; i < 60; ++i) (*any())->taskRunFromTest();
    while (workers.size() > 12) end();
    FILE* const file = std::tmpfile();
    bool done = false;
    std::shared_ptr<Tarvo::_TaskBase> walk;
    if (round % 2 == 0) {
      walk = root->statsResetAsync([&] { done = true; });
    } else {
      walk = root->snapshotRenderJsonAsync(fileno(file), [&](int, auto) { done = true; });
    }
    Tarvo::TaskImpl* const step =
        root->taskForTest(round % 2 == 0 ? "statsReset" : "snapshot:write");
    step->taskForceYieldInTestIs(true);
    while (!done) {
      step->taskRunFromTest();
      const unsigned what = random.below(4);
      if (what == 0) add();
      if (what == 0) workers.back()->counts = true;
      if (what == 1 && !workers.empty()) end();
      if (what == 2 && !workers.empty()) (*any())->taskRunFromTest();
    }
    if (round % 2 == 0) {
      for (const auto& each : workers) expected += each->runs;
      ASSERT_EQ(sum(root->statsRenderJson(), true), expected) << "after the reset " << round;
    } else {
      std::string text(static_cast<std::size_t>(lseek(fileno(file), 0, SEEK_END)), ' ');
      ASSERT_EQ(pread(fileno(file), text.data(), text.size(), 0), std::ssize(text));
      ASSERT_EQ(sum(text, false), 20U) << "in the snapshot " << round;
    }
    std::fclose(file);
    workers.resize(std::min<std::size_t>(workers.size(), 2), nullptr);
    while (workers.size() < 2) add();
    workers[0]->onReset = [&] { workers.pop_back(); };
    root->resetStats();
    EXPECT_EQ(sum(root->statsRenderJson(), false), 1U) << "destroyed before its turn";
    workers.clear();
    root->resetStats();
  }
}

TEST_F(ReportsTest, ASnapshotWaitsForItsReaderAndSaysHowItEnded) {
  std::vector<TestTaskPtr> many;
  for (int i = 0; i < 2000; ++i) many.push_back(member(group, fmt::format("m{}", i)));
  testsupport::SocketPair pair;
  int error = -1;
  std::uint64_t bytes = 0;
  const auto end = [&](int e, std::uint64_t n) {
    error = e;
    bytes = n;
  };
  auto snapshot = root->snapshotRenderJsonAsync(pair.ends[1], end);
  for (int pass = 0; pass < 50; ++pass) Platform::doEventLoop(0.0);  // nobody reads
  EXPECT_EQ(error, -1);
  std::string got;
  std::array<char, 30000> piece;
  fcntl(pair.ends[0], F_SETFL, O_NONBLOCK);
  while (error < 0 || got.size() < bytes) {
    if (!many.empty()) many.resize(many.size() - std::min<std::size_t>(many.size(), 100));
    const auto count = read(pair.ends[0], piece.data(), piece.size());
    if (count > 0) got.append(piece.data(), static_cast<std::size_t>(count));
    Platform::doEventLoop(0.0);
  }
  EXPECT_EQ(error, 0);
  EXPECT_EQ(got.size(), bytes);
  parsed(got);
  // Tasks that come, also if they end, and the closing of the descriptor, change nothing.
  const auto alone = Tarvo::schedulerRootTarvoNonShared("alone");
  for (int i = 0; i < 2000; ++i) many.push_back(member(alone, fmt::format("m{}", i)));
  const int copy = dup(pair.ends[1]);
  const auto second = alone->snapshotRenderJsonAsync(copy, end);
  close(copy);
  EXPECT_EQ(second->taskQuantum(), 1'000'000);
  second->taskTestYieldRatioIs(1);
  got.clear();
  for (error = -1; (error < 0 || got.size() < bytes) && many.size() < 20000;) {
    const auto count = read(pair.ends[0], piece.data(), piece.size());
    if (count > 0) got.append(piece.data(), static_cast<std::size_t>(count));
    Platform::doEventLoop(0.0);
    many.push_back(member(alone, "later"));
    member(alone, fmt::format("later {}", many.size()));
  }
  EXPECT_EQ(error, 0);
  parsed(got);
  EXPECT_NE(got.find("\"m1999\""), std::string::npos);
  EXPECT_EQ(got.find("later"), std::string::npos);
  EXPECT_GT(second->taskRunCountWritable(), 2000U) << "it asks after every record";
  shutdown(pair.ends[0], SHUT_RDWR);
  snapshot = root->snapshotRenderJsonAsync(pair.ends[1], end);
  for (error = -1; error < 0;) Platform::doEventLoop(0.0);
  EXPECT_EQ(error, EPIPE);
  snapshot = root->snapshotRenderJsonAsync(-1, end);
  for (error = -1; error < 0;) Platform::doEventLoop(0.0);
  EXPECT_EQ(error, EBADF);
}

TEST_F(ReportsTest, ASnapshotWithoutMemoryOrDescriptorsLosesNone) {
  const auto openDescriptors = [] {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
  };
  testsupport::SocketPair pair;
  const auto before = openDescriptors();
  bool refused = true;
  for (unsigned long allocation = 1; refused; ++allocation) {
    testsupport::refusedAllocation = allocation;
    try {
      root->snapshotRenderJsonAsync(pair.ends[1]);
      refused = false;
    } catch (const std::bad_alloc&) {
    }
    testsupport::refusedAllocation = 0;
  }
  EXPECT_EQ(openDescriptors(), before);
  rlimit limit, few;
  getrlimit(RLIMIT_NOFILE, &limit);
  few = {64, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  std::vector<int> copies;
  for (int copy = dup(0); copy >= 0; copy = dup(0)) copies.push_back(copy);
  int error = -1;
  const auto snapshot =
      root->snapshotRenderJsonAsync(pair.ends[1], [&](int e, auto) { error = e; });
  for (const int copy : copies) close(copy);
  setrlimit(RLIMIT_NOFILE, &limit);
  Platform::doEventLoop(0.0);
  EXPECT_EQ(error, EMFILE);
}

}  // namespace
