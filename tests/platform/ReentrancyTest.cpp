#include <gmock/gmock-matchers.h>

#include <stdexcept>

#include "support/LoopFixture.h"

namespace {

using namespace testsupport;
using testing::ElementsAre;

/// One kind of control behind one face, so that each case below runs for all of them.
struct Kind {
  std::string name;
  std::string threw;  // how its exception operation shows in the log
  /// Arms a control for the handler on a descriptor that can be read at once.
  std::function<std::shared_ptr<void>(Handler&, int fd)> armed;
  std::function<void(const std::shared_ptr<void>&)> arm;
  std::function<void(const std::shared_ptr<void>&)> disarm;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

template <typename Control>
Control& as(const std::shared_ptr<void>& control) {
  return *static_cast<Control*>(control.get());
}

const Kind kinds[] = {
    {"Timer", "timer threw",
     [](Handler& h, int) {
       auto control = Platform::getTimerControl(&h);
       control->setTimeout(0);
       return std::static_pointer_cast<void>(control);
     },
     [](auto& c) { as<Platform::TimerControl>(c).setTimeout(0); },
     [](auto& c) { as<Platform::TimerControl>(c).delTimeout(); }},
    {"Callback", "callback threw",
     [](Handler& h, int) {
       auto control = Platform::getCallbackControl(&h);
       control->requestCallback();
       return std::static_pointer_cast<void>(control);
     },
     [](auto& c) { as<Platform::CallbackControl>(c).requestCallback(); },
     [](auto& c) { as<Platform::CallbackControl>(c).cancelCallback(); }},
    {"Fd", "fd",
     [](Handler& h, int fd) {
       auto control = Platform::getFdControl(&h);
       control->setReads(false);
       control->setWrites(true);
       control->setFd(fd);
       return std::static_pointer_cast<void>(control);
     },
     [](auto& c) { as<Platform::FdControl>(c).setWrites(true); },
     [](auto& c) { as<Platform::FdControl>(c).clearEvents(); }},
};

struct ReentrancyTest : LoopFixture, testing::WithParamInterface<Kind> {
  /// Who ran, without the details of the kind.
  RunLog names() const {
    RunLog result;
    for (const auto& entry : log) {
      const bool threw = entry.ends_with(" threw");
      result.push_back(entry.substr(0, entry.find(' ')) + (threw ? "!" : ""));
    }
    return result;
  }
  const Kind& kind = GetParam();
  SocketPair first;
  SocketPair second;
  Handler a{log, "a"};
  Handler b{log, "b"};
  std::shared_ptr<void> controlA = kind.armed(a, first.ends[0]);
  std::shared_ptr<void> controlB = kind.armed(b, second.ends[0]);

  void TearDown() override {
    controlA.reset();
    controlB.reset();
    LoopFixture::TearDown();
  }
};

TEST_P(ReentrancyTest, DestroysItselfOrItsSibling) {
  a.action = [this] { controlA.reset(); };
  b.action = [this] { controlB.reset(); };
  Platform::doEventLoop();
  EXPECT_EQ(names().size(), 2U);

  log.clear();
  controlA = kind.armed(a, first.ends[0]);
  controlB = kind.armed(b, second.ends[0]);
  a.action = b.action = [this] { (log.back()[0] == 'a' ? controlB : controlA).reset(); };
  Platform::doEventLoop();
  EXPECT_EQ(names().size(), 1U);  // the other one was ready too, but is gone
}

TEST_P(ReentrancyTest, StopsItsSiblingAndStartsItselfAgain) {
  a.action = b.action = [this] {
    const bool isA = log.back()[0] == 'a';
    kind.disarm(isA ? controlB : controlA);
    if (log.size() < 3) kind.arm(isA ? controlA : controlB);
  };
  Platform::doEventLoop();
  EXPECT_EQ(log.size(), 3U);
  EXPECT_EQ(log.front(), log.back());
}

TEST_P(ReentrancyTest, AHandledExceptionStaysInside) {
  a.handles = b.handles = true;
  a.action = b.action = [] { throw 7; };
  EXPECT_EQ(Platform::doEventLoop(), 1);
  ASSERT_EQ(names().size(), 4U);
  EXPECT_EQ(names()[1], names()[0] + "!");
  EXPECT_EQ(names()[3], names()[2] + "!");
}

TEST_P(ReentrancyTest, AnUnhandledExceptionLeavesAndTheNextLoopGoesOn) {
  event_base* base = Tarvo::leInit();
  a.action = b.action = [] { throw std::runtime_error("out"); };
  for (int round = 0; round < 2; ++round) {
    try {
      Platform::doEventLoop(30);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "out");
    }
    EXPECT_EQ(log.size(), round == 0 ? 2U : 4U);
  }
  // The ends of the bounded loops went with them.
  EXPECT_EQ(event_base_get_num_events(base, EVENT_BASE_COUNT_ADDED), 0);
  EXPECT_EQ(Tarvo::leInit(), base);
  EXPECT_EQ(Platform::doEventLoop(), 1);
}

TEST_P(ReentrancyTest, DestroysItselfAndThrows) {
  b.action = a.action = [this] {
    (log.back()[0] == 'a' ? controlA : controlB).reset();
    throw 7;
  };
  EXPECT_THROW(Platform::doEventLoop(), int);
  a.handles = b.handles = true;
  EXPECT_EQ(Platform::doEventLoop(), 1);
  EXPECT_EQ(log.size(), 4U);
  a.throwsAgain = true;
  controlA = kind.armed(a, first.ends[0]);
  EXPECT_THROW(Platform::doEventLoop(), int);
  if (kind.name == "Fd") {
    EXPECT_EQ(log[1].substr(2), "fd -1 threw");
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReentrancyTest, testing::ValuesIn(kinds),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
