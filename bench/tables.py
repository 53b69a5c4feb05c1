"""What the report shows. To add a row or to follow a new name is one line here; a row that is named
here and measured by no program fails the report."""

from dataclasses import dataclass, field

from rows import count

TIMERS = (1_000, 10_000, 100_000, 1_000_000)
RINGS = ((100, 1), (100, 50), (1000, 1), (1000, 100))


@dataclass
class Comparison:
    """One line of the summary: what the ratio of our row to the peer's, of the worst pair, or a
    number that our row counts, shall stay below: first, then hoped for."""
    path: str
    pairs: list  # of ours and the peer's, which is None where there is no peer
    targets: tuple = ()
    counter: str = ""


@dataclass
class Case:
    """What is measured under the same circumstances: rows by label."""
    label: str
    ours: dict
    peers: dict = field(default_factory=dict)

    @property
    def bars(self):
        return self.ours | self.peers


@dataclass
class Topic:
    """One table and one chart, whose file is named here without suffix."""
    file: str
    title: str
    text: str
    cases: list


def start_stop():
    """The heap pays for its height: from a thousand timers to a million the target falls by the
    same factor for each power of ten."""
    return [Comparison(f"timer start and stop among {count(n)} / libevent's heap",
                       [(f"StartStop<TarvoWheel>/{n}", f"StartStop<LibeventHeap>/{n}")],
                       (round(0.33 ** (k / 3), 2),)) for k, n in enumerate(TIMERS)]


COMPARISONS = [
    Comparison("run of a task by the root / callback of libevent that re-arms itself",
               [("RootTaskRun/1", "LibeventCallback")], (0.55, 0.4)),
    Comparison("run of a task by the root / post of asio with a descriptor in use",
               [("RootTaskRun/1", "AsioPost/withReactor/1")], (0.75, 0.6)),
    Comparison("run of a group's member / post of asio with a descriptor in use",
               [("GroupMemberRun/1", "AsioPost/withReactor/1")], (0.5, 0.4)),
    Comparison("event of a descriptor task / persistent event of libevent, worst of four rings",
               [(f"TarvoFdTask/{n}/{k}", f"LibeventPersist/{n}/{k}") for n, k in RINGS],
               (1.3, 1.15)),
    Comparison("the same, of a task that reads until nothing is left, with taskReadDrained()",
               [(f"TarvoFdTaskDrained/{n}/{k}", f"LibeventPersist/{n}/{k}") for n, k in RINGS],
               (1.3, 1.15)),
    *start_stop(),
    Comparison("timer re-arm among 1M / libevent's heap",
               [("Rearm<TarvoWheel>/1000000", "Rearm<LibeventHeap>/1000000")],
               (0.2,)),
    Comparison("timer re-arm among 1M / libev",
               [("Rearm<TarvoWheel>/1000000", "Rearm<Libev>/1000000")],
               (1.0, 0.7)),
    Comparison("expiry of 1M due timers / libevent's heap",
               [("Expire<TarvoWheel>/1000000", "Expire<LibeventHeap>/1000000")], (0.25,)),
    *(Comparison(f"restart of a timer task among {count(n)} / libevent's heap",
                 [(f"Rearm<TimerTasks>/{n}", f"Rearm<LibeventHeap>/{n}")], targets)
      for n, targets in ((1_000, (1.1, 0.9)), (1_000_000, (0.4, 0.25)))),
    Comparison("disabled trace statement / load and test", [("TraceDisabled", "BareLoadAndTest")],
               (1.2,)),
    Comparison("trace line to a file / spdlog that flushes each line",
               [("TraceToFile", "SpdlogToFile")], (1.0,)),
    Comparison("trace line to a file / one write of a prepared line",
               [("TraceToFile", "OneWriteToFile")], (1.5,)),
    Comparison("backtrace of 50 frames / unw_backtrace", [("BacktraceCapture/50", "UnwBacktrace/50")],
               (1.3,)),
    Comparison("throw and catch over 10 frames / std::runtime_error",
               [("ThrowAndCatch<Tarvo::RuntimeException>/10",
                 "ThrowAndCatch<std::runtime_error>/10")], (1.4,)),
    Comparison("first what() over 10 frames", [("ExceptionWhat/10", None)]),
    Comparison("lock and unlock / std::mutex",
               [("LockAndUnlock<Tarvo::Locking::Lock>", "LockAndUnlock<std::mutex>")], (1.3,)),
    Comparison("lock and unlock, recursive / recursive mutex of pthread",
               [("LockAndUnlock<Tarvo::Locking::RecursiveLock>",
                 "LockAndUnlock<RecursivePthreadMutex>")], (1.3,)),
    Comparison("hash of 1024 bytes / std::hash", [("UtilHash/1024", "StdHash/1024")]),
    Comparison("interning a known name among 1M / std::unordered_set",
               [("InternString/1000000", "InternStdUnorderedSet/1000000")]),
    Comparison("bytes of an idle task with its name, among 1M", [("IdleTasks/1000000", None)],
               (480, 400), "heap_bytes"),
]


def timers(file, title, text, pattern, ours, peers):
    """A topic with a case for each number of timers; `pattern` takes the backend and the number."""
    def at(n, backends):
        return {label: pattern.format(backend, n) for label, backend in backends.items()}
    return Topic(file, title, text,
                 [Case(f"{count(n)} pending", at(n, ours), at(n, peers)) for n in TIMERS])


WHEEL = {"Tarvo wheel": "TarvoWheel"}
HEAP = {"libevent heap": "LibeventHeap"}
OTHERS = {"libev": "Libev", "libuv": "Libuv", "asio": "Asio"}
ASIO = {"asio post": "AsioPost/alone/1", "asio post, descriptor": "AsioPost/withReactor/1"}


def errors(depth):
    def beside(name):
        return ({"Tarvo": f"{name}<Tarvo::RuntimeException>/{depth}"},
                {"std": f"{name}<std::runtime_error>/{depth}"})
    return [Case(f"throw and catch, {depth} frames", *beside("ThrowAndCatch")),
            Case(f"construct, {depth} frames", *beside("ConstructException")),
            Case(f"first what(), {depth} frames", {"Tarvo": f"ExceptionWhat/{depth}"}),
            Case(f"backtrace, {depth} frames", {"Tarvo": f"BacktraceCapture/{depth}"},
                 {"unw_backtrace": f"UnwBacktrace/{depth}"})]


TOPICS = [
    Topic("running", "Running a piece of work",
          "One run of the same work, again and again, on a loop that has nothing else to do.",
          [Case("one task", {"Tarvo root": "RootTaskRun/1"},
                {"libevent callback": "LibeventCallback", "libuv idle": "LibuvIdle",
                 "libev idle": "LibevIdle", "glib idle": "GlibIdle"} | ASIO),
           Case("one member of a group", {"Tarvo group": "GroupMemberRun/1"}, ASIO),
           Case("100 members of a group", {"Tarvo group": "GroupMemberRun/100"},
                {"asio post, descriptor": "AsioPost/withReactor/100"}),
           Case("2 runnable tasks, two priorities", {"Tarvo root": "RootTaskRun/2"}),
           Case("100 runnable tasks, three priorities", {"Tarvo root": "RootTaskRun/100"}),
           Case("10,000 runnable tasks, three priorities",
                {"Tarvo root": "RootTaskRun/10000"}),
           Case("schedule and unschedule", {"Tarvo": "ScheduleUnschedule"})]),
    Topic("controls", "Handlers on the loop",
          "A callback that asks for its next call, and a byte sent and read.",
          [Case("callback", {"Tarvo": "CallbackRearmed"}, {"libevent": "LibeventCallback"}),
           Case("descriptor", {"Tarvo": "TarvoFdControl/1/1"}, {"libevent": "LibeventPersist/1/1"})]),
    Topic("descriptors", "Descriptors",
          "Bytes travel around a ring of connections; one event is a read and a write besides what "
          "the loop does. A drained task reads once more, until nothing is left, and says so.",
          [Case(f"{n} connections, {k} under way",
                {"Tarvo task": f"TarvoFdTask/{n}/{k}",
                 "Tarvo task, drained": f"TarvoFdTaskDrained/{n}/{k}",
                 "Tarvo control": f"TarvoFdControl/{n}/{k}"},
                {"libevent": f"LibeventPersist/{n}/{k}", "libuv": f"LibuvPoll/{n}/{k}",
                 "asio": f"AsioWait/{n}/{k}", "bare epoll": f"EpollLevel/{n}/{k}"})
           for n, k in RINGS]),
    timers("timer-start-stop", "Timers: stop and start",
           "One stop and one start of any of the pending timers.", "StartStop<{}>/{}",
           WHEEL, HEAP | OTHERS),
    timers("timer-rearm", "Timers: re-arm",
           "Any of the pending timers gets a new delay, each time another one.",
           "Rearm<{}>/{}", WHEEL, HEAP | OTHERS),
    timers("timer-rearm-equal", "Timers: re-arm with equal delays",
           "As before, but all delays are equal, which libevent has queues for.",
           "RearmEqual<{}>/{}", WHEEL, HEAP | {"libevent common": "LibeventCommon"} | OTHERS),
    timers("timer-expire", "Timers: expiry", "All timers are due at once; time for each of them.",
           "Expire<{}>/{}", WHEEL, HEAP | OTHERS),
    timers("timer-tasks", "Timer tasks: restart", "Any of the pending timer tasks is restarted.",
           "Rearm<{}>/{}", {"Tarvo timer task": "TimerTasks"}, HEAP | {"asio": "Asio"}),
    Topic("traces", "Traces",
          "One statement. To a file, each writer hands each line to the system at once.",
          [Case("disabled", {"Tarvo": "TraceDisabled"}, {"load and test": "BareLoadAndTest"}),
           *(Case(label, {"Tarvo": f"TraceTo{to}"},
                  {"spdlog": f"SpdlogTo{to}", "glog": f"GlogTo{to}", "one write": f"OneWriteTo{to}"})
             for label, to in (("to a file", "File"), ("to /dev/null", "Null")))]),
    Topic("errors", "Exceptions and backtraces",
          "At the given depth of the stack: a throw that is caught above all frames, the mere "
          "construction, and a backtrace. Tarvo's exceptions carry a backtrace.",
          [case for depth in (10, 50, 100) for case in errors(depth)]),
    Topic("locks", "Locks", "Lock and unlock of a lock that nobody else wants.",
          [Case("plain", {"Tarvo": "LockAndUnlock<Tarvo::Locking::Lock>"},
                {"std::mutex": "LockAndUnlock<std::mutex>"}),
           Case("recursive", {"Tarvo": "LockAndUnlock<Tarvo::Locking::RecursiveLock>"},
                {"pthread": "LockAndUnlock<RecursivePthreadMutex>"})]),
    Topic("strings", "Names and hashes", "",
          [*(Case(f"intern a known name among {count(n)}", {"Tarvo": f"InternString/{n}"},
                  {"std::unordered_set": f"InternStdUnorderedSet/{n}"})
             for n in (1, 1_000, 1_000_000)),
           Case("copy of a name", {"Tarvo": "CopyConstStringRef"},
                {"shared_ptr": "CopySharedString"}),
           *(Case(f"hash of {n} bytes", {"Tarvo": f"UtilHash/{n}"}, {"std::hash": f"StdHash/{n}"})
             for n in (8, 64, 1024))]),
    Topic("moments", "Clock and history", "",
          [Case("read the clock", {"Tarvo": "LibraryClock"}, {"steady_clock": "SteadyClock"}),
           Case("one event of the history", {"Tarvo": "HistoryInsert"})]),
    Topic("reports", "Reports of 10,000 tasks",
          "Beside them the JSON library alone, which writes the same document.",
          [Case("one report",
                {"Tarvo JSON": "Json/10000", "Tarvo text": "Text/10000",
                 "Tarvo Prometheus": "Prometheus/10000"},
                {"JSON library": "JsonLibraryAlone/10000"})]),
]

LARGEST = 6  # power of ten
# Label, row by size, largest power of ten, whether it is ours, and what the algorithm does.
GROWTHS = [
    ("run of a task", "RootTaskRun/{}", LARGEST, True, "constant"),
    ("making and destroying a task", "TaskMade/{}", LARGEST, True, "constant"),
    ("timer stop + start", "StartStop<TarvoWheel>/{}", LARGEST, True, "constant"),
    ("libevent: timer stop + start", "StartStop<LibeventHeap>/{}", LARGEST, False,
     "logarithm"),
    ("intern a known name", "InternString/{}", LARGEST, True, "constant"),
    ("descriptor event", "TarvoFdTask/{}/1", 4, True, "constant"),
    ("libevent: descriptor event", "LibeventPersist/{}/1", 4, False, "constant"),
    ("JSON report of all", "Json/{}", 4, True, "linear"),
]

MEMORIES = {
    "task, all of one name": "MemoryOfTask/100000",
    "task with a name of its own": "MemoryOfNamedTask/100000",
    "timer task, all of one name": "MemoryOfTimerTask/100000",
    "timer on the wheel": "MemoryOfWheelTimer/100000",
    "timer of libevent, with its place in the heap": "MemoryOfLibeventTimer/100000",
    "interned name of 16 characters": "MemoryOfInternedName/100000",
    "event of the history": "MemoryOfHistoryEvent/100000",
}


def named_rows():
    """The rows that the report needs."""
    names = {name for comparison in COMPARISONS for pair in comparison.pairs for name in pair if name}
    names.update(name for topic in TOPICS for case in topic.cases for name in case.bars.values())
    names.update(row.format(10**k) for _, row, largest, _, _ in GROWTHS for k in range(largest + 1))
    return names | set(MEMORIES.values())
