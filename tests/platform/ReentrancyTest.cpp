#include <stdexcept>

#include "support/LoopFixture.h"

namespace {

using namespace testsupport;

/// One kind of control behind one face, so that each case below runs for all of them.
struct Armed {
  std::function<void()> arm;
  std::function<void()> disarm;
};
struct Kind {
  std::string name;
  /// Arms a control for the handler on a descriptor that can be written at once.
  std::unique_ptr<Armed> (*make)(Handler& handler, int fd);
};
void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

std::unique_ptr<Armed> makeArmed(std::function<void()> arm, std::function<void()> disarm) {
  arm();
  return std::make_unique<Armed>(std::move(arm), std::move(disarm));
}

const Kind kinds[] = {
    {"Timer",
     [](Handler& handler, int) {
       auto control = Platform::getTimerControl(&handler);
       return makeArmed([=] { control->setTimeout(0); }, [=] { control->delTimeout(); });
     }},
    {"Callback",
     [](Handler& handler, int) {
       auto control = Platform::getCallbackControl(&handler);
       return makeArmed([=] { control->requestCallback(); }, [=] { control->cancelCallback(); });
     }},
    {"Fd",
     [](Handler& handler, int fd) {
       auto control = Platform::getFdControl(&handler);
       control->setReads(false);
       control->setFd(fd);
       return makeArmed([=] { control->setWrites(true); }, [=] { control->clearEvents(); });
     }},
};

struct ReentrancyTest : LoopFixture, testing::WithParamInterface<Kind> {
  const Kind& kind = GetParam();
  SocketPair first;
  SocketPair second;
  Handler a{log, "a"};
  Handler b{log, "b"};
  std::unique_ptr<Armed> controlA = kind.make(a, first.ends[0]);
  std::unique_ptr<Armed> controlB = kind.make(b, second.ends[0]);
};

TEST_P(ReentrancyTest, DestroysItselfOrItsSibling) {
  a.action = [this] { controlA.reset(); };
  b.action = [this] { controlB.reset(); };
  Platform::doEventLoop();
  EXPECT_EQ(log.size(), 2U);

  log.clear();
  controlA = kind.make(a, first.ends[0]);
  controlB = kind.make(b, second.ends[0]);
  a.action = b.action = [this] { (log.back()[0] == 'a' ? controlB : controlA).reset(); };
  Platform::doEventLoop();
  EXPECT_EQ(log.size(), 1U);  // the other one was ready too, but is gone
}

TEST_P(ReentrancyTest, StopsItsSiblingAndStartsItselfAgain) {
  a.action = b.action = [this] {
    const bool isA = log.back()[0] == 'a';
    (isA ? controlB : controlA)->disarm();
    if (log.size() < 3) (isA ? controlA : controlB)->arm();
  };
  Platform::doEventLoop();
  EXPECT_EQ(log.size(), 3U);
  EXPECT_EQ(log.front(), log.back());
}

TEST_P(ReentrancyTest, AnUnhandledExceptionLeavesAndTheNextLoopGoesOn) {
  event_base* base = Tarvo::leInit();
  a.action = b.action = [] { throw std::runtime_error("out"); };
  for (int round = 0; round < 2; ++round) {
    EXPECT_THROW(Platform::doEventLoop(30), std::runtime_error);
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
  controlA = kind.make(a, first.ends[0]);
  EXPECT_THROW(Platform::doEventLoop(), int);
  if (kind.name == "Fd") {
    EXPECT_EQ(log[1].substr(2), "fd -1 threw");
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ReentrancyTest, testing::ValuesIn(kinds),
                         [](const auto& tested) { return tested.param.name; });

}  // namespace
