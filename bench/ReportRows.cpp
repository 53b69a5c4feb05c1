#include "ReportRows.h"

#include <rapidjson/document.h>
#include <rapidjson/istreamwrapper.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <stdexcept>
#include <string_view>

#include "Descriptors.h"

namespace report {

namespace {

double nanosecondsPer(const std::string& unit) {
  if (unit == "ns") return 1;
  if (unit == "us") return 1e3;
  if (unit == "ms") return 1e6;
  if (unit == "s") return 1e9;
  throw std::runtime_error("unknown unit of time: " + unit);
}

constexpr std::string_view manualTime = "/manual_time";

/// How a row is measured stands in its name too, behind what it is.
std::string nameOnly(std::string name) {
  const auto at = name.find("/iterations:");
  if (at != std::string::npos) name.erase(at, name.find('/', at + 1) - at);
  if (name.ends_with(manualTime)) name.resize(name.size() - manualTime.size());
  return name;
}

/// Everything that is a number and not a field of the format itself was counted by the row.
void addCounters(const rapidjson::Value& from, Row& row) {
  static const char* const fields[] = {"family_index",     "per_family_instance_index",
                                       "repetitions",      "repetition_index",
                                       "threads",          "iterations",
                                       "real_time",        "cpu_time",
                                       "items_per_second", "bytes_per_second"};
  for (const auto& [key, value] : from.GetObject()) {
    const std::string name = key.GetString();
    if (!value.IsNumber() || std::find(fields, std::end(fields), name) != std::end(fields))
      continue;
    row.counters[name] = value.GetDouble();
  }
}

/// A row whose iteration does many things at once tells the seconds for each of them. One that
/// reads the processor's time by itself tells it as manual time, which the format calls the real
/// one.
double nanosecondsOf(const rapidjson::Value& repetition) {
  if (repetition.HasMember("each")) return repetition["each"].GetDouble() * 1e9;
  const std::string_view name = repetition["run_name"].GetString();
  const char* field = name.ends_with(manualTime) ? "real_time" : "cpu_time";
  return repetition[field].GetDouble() * nanosecondsPer(repetition["time_unit"].GetString());
}

void addRepetition(const rapidjson::Value& from, Row& row) {
  if (!from.HasMember("error_occurred")) {
    addCounters(from, row);
    row.nanoseconds.push_back(nanosecondsOf(from));
    return;
  }
  const std::string reason = from["error_message"].GetString();
  if (bench::lacksDescriptors(reason)) {
    row.skipped = reason;
  } else {
    row.failures.insert(reason);
  }
}

double quantile(const std::vector<double>& sorted, double share) {
  const double at = share * static_cast<double>(sorted.size() - 1);
  const auto below = static_cast<std::size_t>(at);
  const auto above = std::min(below + 1, sorted.size() - 1);
  return std::lerp(sorted[below], sorted[above], at - static_cast<double>(below));
}

}  // namespace

Middle middleOf(std::vector<double> numbers) {
  if (numbers.empty()) return {};
  std::sort(numbers.begin(), numbers.end());
  return {quantile(numbers, 0.25), quantile(numbers, 0.5), quantile(numbers, 0.75)};
}

double Row::spread() const {
  const auto [low, median, high] = time();
  return 100 * (high - low) / median;
}

Middle ratio(const Row& ours, const Row& peer) {
  std::vector<double> pairs;
  for (const double mine : ours.nanoseconds) {
    for (const double other : peer.nanoseconds) pairs.push_back(mine / other);
  }
  auto result = middleOf(std::move(pairs));
  result.median = ours.time().median / peer.time().median;
  return result;
}

void Rows::read(const std::string& file) {
  std::ifstream in(file);
  rapidjson::IStreamWrapper stream(in);
  rapidjson::Document document;
  document.ParseStream(stream);
  if (document.HasParseError() || !document.IsObject() || !document.HasMember("benchmarks")) {
    throw std::runtime_error(file + " is not the result of a benchmark program");
  }
  std::map<std::string, Row> fresh;
  for (const auto& entry : document["benchmarks"].GetArray()) {
    if (entry["run_type"] != "iteration") continue;
    addRepetition(entry, fresh[nameOnly(entry["run_name"].GetString())]);
  }
  rows_.merge(fresh);
  if (fresh.empty()) return;
  throw std::runtime_error("two programs measure a row of the same name: " + fresh.begin()->first);
}

const Row* Rows::find(const std::string& name) const {
  const auto at = rows_.find(name);
  return at == rows_.end() ? nullptr : &at->second;
}

std::pair<std::size_t, std::size_t> Rows::repetitions() const {
  std::pair<std::size_t, std::size_t> bounds{SIZE_MAX, 0};
  for (const auto& [name, row] : rows_) {
    if (!row.measured()) continue;
    bounds.first = std::min(bounds.first, row.nanoseconds.size());
    bounds.second = std::max(bounds.second, row.nanoseconds.size());
  }
  return bounds;
}

}  // namespace report
