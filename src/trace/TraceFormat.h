#ifndef TARVO_SRC_TRACE_TRACEFORMAT_H
#define TARVO_SRC_TRACE_TRACEFORMAT_H

#include <array>
#include <cstdint>

namespace Tarvo::Impl {

/// The fields before a message, in the order in which they stand there.
enum class TraceField : std::uint8_t { date, time, pid, tid, handle, level, lineInfo, funcName };

constexpr std::array<const char*, 8> traceFieldNames = {
    "date", "time", "pid", "tid", "handle", "level", "line-info", "func-name"};

/// Which fields are on. One byte, so that a line never sees half of a change.
class TraceFields {
 public:
  constexpr explicit TraceFields(std::uint8_t bits = 0) : bits_(bits) {}

  constexpr bool has(TraceField field) const { return ((bits_ >> unsigned(field)) & 1U) != 0; }
  constexpr void add(TraceField field) {
    bits_ = static_cast<std::uint8_t>(bits_ | (1U << unsigned(field)));
  }
  constexpr std::uint8_t bits() const { return bits_; }

 private:
  std::uint8_t bits_;
};

/// The format in force; no lock needed.
TraceFields traceFields();

}  // namespace Tarvo::Impl

#endif
