#include "Tarvo/TraceSink.h"

#include <atomic>
#include <cstdlib>
#include <iostream>

#include "Tarvo/Loco.h"
#include "Tarvo/String.h"
#include "foundation/AtFork.h"
#include "foundation/PassCancellation.h"
#include "foundation/Uncancelled.h"
#include "trace/TraceOutput.h"

namespace Tarvo {

namespace {

std::shared_ptr<Platform::TraceSink>& sinkInForce() {
  static auto& instance = *new std::shared_ptr<Platform::TraceSink>;
  return instance;
}

std::atomic<bool> sinkIsSet{false};
std::atomic<unsigned long long> threwCount{0};
thread_local bool inSink = false;

/// Stands around all that a sink does, its end included.
class InSink {
 public:
  InSink() { inSink = true; }
  InSink(const InSink&) = delete;
  InSink& operator=(const InSink&) = delete;
  ~InSink() { inSink = false; }

 private:
  Impl::Uncancelled whole_;
};

}  // namespace

bool Impl::hasTraceSink() { return sinkIsSet.load(std::memory_order_relaxed); }

bool Impl::giveToTraceSink(const Platform::TraceRecord& record) {
  if (inSink) return true;
  const InSink busy;
  const auto sink = Platform::traceSink();
  if (sink == nullptr) return false;
  try {
    return sink->traceRecord(record);
  } catch (...) {
    passCancellation();
    threwCount.fetch_add(1, std::memory_order_relaxed);
    return false;
  }
}

namespace Platform {

TraceSink::~TraceSink() = default;

void traceSinkIs(std::shared_ptr<TraceSink> sink) {
  const LocoGuard guard;
  const Impl::WholeChange change;
  sinkInForce().swap(sink);  // the old one goes when the lock is free again
  sinkIsSet.store(sinkInForce() != nullptr, std::memory_order_relaxed);
}

std::shared_ptr<TraceSink> traceSink() {
  const LocoGuard guard;
  return sinkInForce();
}

unsigned long long traceSinkThrewCount() { return threwCount.load(std::memory_order_relaxed); }

void setTraceSink(const char* name) {
  if (name == nullptr) name = secure_getenv("TRACESINK");
  if (name == nullptr) return;
  const String text = name;
  if (text.empty()) return traceSinkIs(nullptr);
  if (text == "json") return traceSinkIs(jsonTraceSink());
  if (text == "syslog") return traceSinkIs(syslogTraceSink());
  std::cerr << text << " is an invalid TRACESINK, which may be json or syslog" << std::endl;
}

}  // namespace Platform

}  // namespace Tarvo
