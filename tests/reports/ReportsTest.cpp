#include <rapidjson/document.h>
#include <sys/resource.h>

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
    task->scheduleTask();
    member(inner, "gone")->scheduleTask();
    member(inner, "gone");
    runTurns(2);
  }
  TestTaskPtr member(const std::shared_ptr<Tarvo::TaskScheduler>& scheduler,
                     const std::string& name) {
    const auto body = [](TestTask& self) { self.taskWorkCountInc(~0ULL - 5); };
    return make(name, TaskPriority::normal, body, scheduler);
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
  void waitForEnd() {
    runUntil([this] { return error >= 0; });
  }
  /// What a snapshot wrote to the file.
  std::string written() {
    waitForEnd();
    std::string text(static_cast<std::size_t>(lseek(file, 0, SEEK_END)), ' ');
    EXPECT_EQ(pread(file, text.data(), text.size(), 0), std::ssize(text));
    EXPECT_TRUE(error == 0 && bytes == text.size());
    EXPECT_TRUE(ftruncate(file, 0) == 0 && lseek(file, 0, SEEK_SET) == 0);
    return text;
  }
  std::shared_ptr<TaskGroup> group =
      std::make_shared<TaskGroup>("group", TaskPriority::low, false, root);
  std::shared_ptr<TaskGroup> inner =
      std::make_shared<TaskGroup>("inner", TaskPriority::low, false, group);
  TestTaskPtr task = member(group, hostile);
  const std::shared_ptr<std::FILE> stream{std::tmpfile(), std::fclose};
  const int file = fileno(stream.get());
  int error = -1;  // how a snapshot ended
  std::uint64_t bytes = 0;
  const std::function<void(int, std::uint64_t)> end = [this](int e, std::uint64_t n) {
    error = e;
    bytes = n;
  };
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
  root->statsRenderTextForDebug(file, "go");
  std::string filtered(2000, ' ');
  filtered.resize(static_cast<std::size_t>(pread(file, filtered.data(), 2000, 0)));
  EXPECT_THAT(filtered,
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
  const auto& schedulers = document["schedulers"];
  const auto& members = named(schedulers, "group");
  EXPECT_STREQ(named(named(schedulers, "root")["tasks"], "group")["subScheduler"].GetString(),
               members["key"].GetString());
  const auto& record = named(members["tasks"], shown);
  EXPECT_EQ(record["workTotal"].GetUint64(), ~0ULL - 5);
  EXPECT_FALSE(record.HasMember("workPendingMost")) << "never reported";
  EXPECT_EQ(named(named(schedulers, "inner")["completed"], "gone")["completedCount"].GetInt(), 2);
}

/// Reads a page as a strict reader does: each family in one piece, with one head and type, and no
/// series twice.
std::map<std::string, double> seriesOf(const std::string& page) {
  std::map<std::string, double> series;
  std::set<std::string> families;
  std::string family;
  std::istringstream lines(page);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t end = line.rfind("} ");
    if (line.starts_with("# HELP ")) {
      family = line.substr(7, line.find(' ', 7) - 7);
      EXPECT_TRUE(families.insert(family).second) << line;
    } else if (line.starts_with("# TYPE ")) {
      EXPECT_TRUE(line.starts_with("# TYPE " + family + " ")) << line;
    } else if (!line.starts_with(family + "{root=\"") || end == std::string::npos) {
      ADD_FAILURE() << line;
    } else {
      const double value = std::stod(line.substr(end + 2));
      EXPECT_TRUE(series.emplace(line.substr(0, end + 1), value).second) << line;
    }
  }
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
      Tarvo::threadNameIs("worker");
      pages.push_back(Tarvo::schedulerRootTarvo()->statsRenderPrometheus());
    }).join();
  }
  const auto joined = Tarvo::joinPrometheusPages(pages);
  const auto series = seriesOf(joined);
  EXPECT_EQ(series.size(), seriesOf(pages[0]).size() + 2 * seriesOf(pages[1]).size());
  for (const char* name : {"worker", "worker#2"}) {
    EXPECT_TRUE(series.contains(fmt::format("tarvo_scheduler_suspended{{root=\"{}\"}}", name)));
  }
  pages = {pages[1], joined, pages[1]};
  const auto again = seriesOf(Tarvo::joinPrometheusPages(pages));
  EXPECT_TRUE(again.contains("tarvo_scheduler_suspended{root=\"worker#2#2\"}"));
  EXPECT_TRUE(again.contains("tarvo_scheduler_suspended{root=\"worker#3\"}"));
  for (const char* bad :
       {"# HELP a b\nc{root=\"d\"} 1\n", "# HELP a b\na 1\n", "# HELP a b\na{root=\"d\n",
        "a{root=\"d\"} 1\n", "# HELP a\n", "# HELP a b"}) {
    pages[1] = bad;
    EXPECT_THROW(Tarvo::joinPrometheusPages(pages), Tarvo::RuntimeException) << bad;
  }
}

TEST_F(ReportsTest, ATaskWritesThePrometheusPageByTheLineToADescriptorOfItsOwn) {
  const auto before = seriesOf(root->statsRenderPrometheus());
  const int copy = dup(file);
  const auto snapshot = root->snapshotRenderPrometheusAsync(copy, end);
  close(copy);
  snapshot->taskTestYieldRatioIs(1);
  const auto series = seriesOf(written());
  EXPECT_TRUE(std::ranges::equal(series | std::views::keys, before | std::views::keys));
  EXPECT_GT(snapshot->taskRunCountWritable(), series.size() / 2);
}

TEST_F(ReportsTest, ATimelineHasRunsThatNestAndWaitsThatEnd) {
  const auto twins = {member(group, "twin"), member(group, "twin"), member(inner, "group")};
  for (const auto& each : twins) each->scheduleTask();
  auto brief = member(inner, "brief");
  brief->taskStatsNameIs("clients");
  brief->scheduleTask();
  runTurns(4);
  brief.reset();
  const auto document = parsed(root->timelineRenderJson());
  std::map<int, int> open;  // by id
  double lastEnd = 0, lastStart = 0;
  int runs = 0;
  double first = HUGE_VAL;  // counted from boot, they would lose their nanoseconds
  for (const auto& event : document["traceEvents"].GetArray()) {
    const std::string phase = event["ph"].GetString(), name = event["name"].GetString();
    EXPECT_TRUE(!name.ends_with("brief") || event["tid"].GetInt() > 1) << "gone, but known";
    if (phase != "M") first = std::min(first, event["ts"].GetDouble());
    if (phase == "b" || phase == "e") open[event["id"].GetInt()] += phase == "b" ? 1 : -1;
    if (phase != "X") continue;
    ++runs;
    const double start = event["ts"].GetDouble(), stop = start + event["dur"].GetDouble();
    // They stand in the order of their ends: each is inside the next or before it.
    EXPECT_TRUE(stop > lastEnd - 0.01 && (start < lastStart + 0.01 || start > lastEnd - 0.01))
        << name;
    lastStart = start;
    lastEnd = stop;
    EXPECT_TRUE(name != "twin" || event["tid"].GetInt() != 1);
  }
  EXPECT_EQ(first, 0);
  EXPECT_EQ(runs, 9) << "of parents, members and twins; what was destroyed was unscheduled";
  EXPECT_EQ(std::ranges::count(open | std::views::values, 1), 3) << "all schedulers are idle";
}

/// Does what the test wants when its figures are reset.
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

TEST_F(ReportsTest, AResetVisitsEverythingOnceAndSaysWhenItIsDone) {
  int hooks = 0;
  std::vector<std::shared_ptr<Worker>> all;
  using Schedulers = std::vector<std::shared_ptr<Tarvo::TaskScheduler>>;
  for (const auto& each : Schedulers{root, group, inner}) {
    all.push_back(std::make_shared<Worker>(each, 0));
    all.back()->onReset = [&] {
      task.reset();
      if (++hooks == 2) throw std::runtime_error("bad");
      all.push_back(std::make_shared<Worker>(root, 0));
      all.back()->onReset = [] { ADD_FAILURE() << "it came later"; };
    };
  }
  const auto reset = root->statsResetAsync([this] { error = 0; });
  EXPECT_THROW(Platform::doEventLoop(1), std::runtime_error);
  waitForEnd();
  EXPECT_EQ(hooks, 3);
  EXPECT_FALSE(root->resetStatsInProgress());
  EXPECT_FALSE(inner->completedTaskStatForTest("gone"));
}

/// Tasks that come, run and go while a walk is in its middle.
struct WalkTest : ReportsTest {
  WalkTest() { task.reset(), inner.reset(), group.reset(); }
  static unsigned sum(const std::string& text, const char* figure) {
    unsigned all = 0;
    const auto document = parsed(text);
    for (const char* list : {"tasks", "completed"}) {
      for (const auto& each : document["schedulers"][0][list].GetArray()) {
        if (each["name"].GetString()[0] != 'w') continue;
        all += each.HasMember(figure) ? each[figure].GetUint() : 1;
      }
    }
    return all;
  }
  auto any() { return workers.begin() + random.below(static_cast<unsigned>(workers.size())); }
  void add() { workers.push_back(std::make_shared<Worker>(root, random.below(8))); }
  void endAny() {
    const auto one = any();
    if ((*one)->counts) expected += (*one)->runs;
    workers.erase(one);
  }
  void begin() {
    workers.clear();
    root->resetStats();
    expected = 0;
    error = -1;
    while (workers.size() < 20) add();
    for (int i = 0; i < 60; ++i) (*any())->taskRunFromTest();
    while (workers.size() > 12) endAny();
  }
  void walk(const char* name) {
    Tarvo::TaskImpl* const step = root->taskForTest(name);
    step->taskForceYieldInTestIs(true);
    for (int steps = 0; error < 0 && steps < 1000; ++steps) {
      step->taskRunFromTest();
      const unsigned what = random.below(4);
      if (what == 0) add();
      if (what == 0) workers.back()->counts = true;
      if (what == 1 && !workers.empty()) endAny();
      if (what == 2 && !workers.empty()) (*any())->taskRunFromTest();
    }
  }
  testsupport::SeededRandom random;
  std::vector<std::shared_ptr<Worker>> workers;
  unsigned expected = 0;
};

TEST_F(WalkTest, AResetCountsOnceWhatEndsMeanwhile) {
  for (int round = 0; round < 100; ++round) {
    begin();
    const auto reset = root->statsResetAsync([this] { error = 0; });
    walk("statsReset");
    for (const auto& each : workers) expected += each->runs;
    ASSERT_EQ(sum(root->statsRenderJson(), "runs"), expected) << round;
  }
  begin();
  workers.resize(2, nullptr);
  workers[0]->onReset = [&] { workers.pop_back(); };
  root->resetStats();
  EXPECT_EQ(sum(root->statsRenderJson(), "completedCount"), 1U) << "destroyed before its turn";
}

TEST_F(WalkTest, ASnapshotCountsOnceWhatEndsMeanwhile) {
  for (int round = 0; round < 100; ++round) {
    begin();
    const auto snapshot = root->snapshotRenderJsonAsync(file, end);
    walk("snapshot:write");
    ASSERT_EQ(sum(written(), "completedCount"), 20U) << round;
  }
}

TEST_F(ReportsTest, ASnapshotWaitsForItsReaderAndSaysHowItEnded) {
  std::vector<TestTaskPtr> many;
  for (int i = 0; i < 2000; ++i) many.push_back(member(group, fmt::format("m{}", i)));
  testsupport::SocketPair pair;
  fcntl(pair.ends[0], F_SETFL, O_NONBLOCK);
  auto snapshot = root->snapshotRenderJsonAsync(pair.ends[1], end);
  runTurns(50);  // nobody reads
  EXPECT_EQ(error, -1);
  std::string got;
  runUntil([&] {
    std::array<char, 30000> piece;
    if (!many.empty()) many.resize(many.size() - 100);
    const auto count = read(pair.ends[0], piece.data(), piece.size());
    if (count > 0) got.append(piece.data(), static_cast<std::size_t>(count));
    return error == 0 && got.size() >= bytes;
  });
  EXPECT_EQ(got.size(), bytes);
  parsed(got);
  shutdown(pair.ends[0], SHUT_RDWR);
  const int devices[] = {open("/", O_PATH), open("/dev/null", O_WRONLY)};
  for (const auto& [fd, expected] :
       {std::pair(pair.ends[1], EPIPE), {-1, EBADF}, {devices[0], EBADF}, {devices[1], 0}}) {
    error = -1;
    snapshot = root->snapshotRenderJsonAsync(fd, end);
    waitForEnd();
    EXPECT_EQ(error, expected);
  }
  for (const int device : devices) close(device);
}

TEST_F(ReportsTest, ASnapshotWithoutMemoryOrDescriptorsLosesNone) {
  const auto before = testsupport::openDescriptors();
  bool refused = true;
  for (unsigned long allocation = 1; refused; ++allocation) {
    testsupport::refusedAllocation = allocation;
    try {
      root->snapshotRenderJsonAsync(file);
      refused = false;
    } catch (const std::bad_alloc&) {
    }
    testsupport::refusedAllocation = 0;
  }
  EXPECT_EQ(testsupport::openDescriptors(), before);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit few = {static_cast<rlim_t>(file) + 1, limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  std::vector<int> copies;
  for (int copy = dup(0); copy >= 0; copy = dup(0)) copies.push_back(copy);
  const auto snapshot = root->snapshotRenderJsonAsync(file, end);
  for (const int copy : copies) close(copy);
  setrlimit(RLIMIT_NOFILE, &limit);
  waitForEnd();
  EXPECT_EQ(error, EMFILE);
}

}  // namespace
