#include <fmt/compile.h>
#include <unistd.h>

#include <iterator>

#include "Tarvo/Loco.h"
#include "foundation/JsonWriter.h"
#include "foundation/Utf8.h"
#include "trace/TraceOutput.h"

namespace Tarvo::Platform {

namespace {

// By arithmetic: the C library breaks a time down under a lock that a forked child may find locked.
std::string utcTime(std::chrono::system_clock::time_point time) {
  using namespace std::chrono;
  const auto day = floor<days>(time);
  const year_month_day date{day};
  const hh_mm_ss clock{floor<microseconds>(time - day)};
  return fmt::format(FMT_COMPILE("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:06}Z"), int{date.year()},
                     unsigned{date.month()}, unsigned{date.day()}, clock.hours().count(),
                     clock.minutes().count(), clock.seconds().count(), clock.subseconds().count());
}

class JsonLine {
 public:
  JsonLine() { writer_.StartObject(); }

  void add(const char* key, std::string_view text) {
    writer_.Key(key);
    const String valid = Impl::validUtf8(text);
    writer_.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
  }
  void add(const char* key, long number) {
    writer_.Key(key);
    writer_.Int64(number);
  }
  std::string_view end() {
    writer_.EndObject();
    buffer_.Put('\n');
    return {buffer_.GetString(), buffer_.GetSize()};
  }

 private:
  Impl::JsonBuffer buffer_;
  Impl::JsonWriter writer_{buffer_};
};

class JsonTraceSink final : public TraceSink {
 public:
  bool traceRecord(const TraceRecord& record) override {
    JsonLine line;
    line.add("time", utcTime(record.time));
    line.add("level", record.level);
    line.add("channel", record.channel);
    line.add("process", getpid());
    line.add("thread", record.thread);
    line.add("file", record.file);
    line.add("line", record.line);
    line.add("function", record.function);
    line.add("message", record.message);
    const std::string_view text = line.end();
    const LocoGuard guard;
    Impl::writeTrace(text);
    return true;
  }
};

}  // namespace

std::shared_ptr<TraceSink> jsonTraceSink() { return std::make_shared<JsonTraceSink>(); }

}  // namespace Tarvo::Platform
