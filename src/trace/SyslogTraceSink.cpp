#include <fmt/format.h>
#include <syslog.h>

#include <algorithm>
#include <iterator>

#include "Tarvo/TraceSink.h"
#include "foundation/AtFork.h"

namespace Tarvo::Platform {

namespace {

int syslogPriority(unsigned level) {
  if (level == 0) return LOG_ERR;
  if (level == 1) return LOG_NOTICE;
  return level <= 4 ? LOG_INFO : LOG_DEBUG;
}

class SyslogTraceSink final : public TraceSink {
 public:
  bool traceRecord(const TraceRecord& record) override {
    if (Impl::forkedAmongThreads()) return false;
    fmt::memory_buffer text;
    fmt::format_to(std::back_inserter(text), "{} {} {} {}", record.thread, record.channel,
                   record.level, record.message);
    std::replace(text.begin(), text.end(), '\0', ' ');
    text.push_back('\0');
    syslog(syslogPriority(record.level), "%s", text.data());
    return true;
  }
};

}  // namespace

std::shared_ptr<TraceSink> syslogTraceSink() { return std::make_shared<SyslogTraceSink>(); }

}  // namespace Tarvo::Platform
