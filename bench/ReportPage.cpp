#include "ReportPage.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "ReportChart.h"
#include "ReportGrowth.h"
#include "ReportMachine.h"
#include "ReportTable.h"
#include "ReportText.h"

namespace report {

namespace {

/// A quick run leaves out what has a million of anything.
bool leftOut(const std::string& row, bool quick) {
  return quick && row.find("/1000000") != std::string::npos;
}

std::vector<Bar> bars(const Case& one) {
  std::vector<Bar> all = one.ours;
  all.insert(all.end(), one.peers.begin(), one.peers.end());
  return all;
}

std::set<std::string> namedRows() {
  const auto others = growthRows();
  std::set<std::string> names(others.begin(), others.end());
  for (const auto& comparison : comparisons()) {
    for (const auto& [ours, peer] : comparison.pairs) names.insert({ours, peer});
  }
  for (const auto& topic : topics()) {
    for (const auto& one : topic.cases) {
      for (const auto& bar : bars(one)) names.insert(bar.row);
    }
  }
  return names;
}

std::string ranged(const Middle& of) {
  return fmt::format("{} ({}–{})", threeDigits(of.median), threeDigits(of.low),
                     threeDigits(of.high));
}

/// For each reach whether the ratio is within; "near" when the runs do not agree about that.
std::string verdict(const Middle& of, const std::vector<double>& reaches) {
  std::string out;
  for (const double reach : reaches) {
    if (!out.empty()) out += ", ";
    out += of.median <= reach ? "yes" : "**no**";
    if (of.low <= reach && reach < of.high) out += " (near)";
  }
  return out;
}

std::string comparisonLine(const Comparison& comparison, const Input& input) {
  const auto reach = fmt::format("{}", fmt::join(comparison.reach, ", then "));
  const Row *worstOurs = nullptr, *worstPeer = nullptr;
  Middle worst;
  for (const auto& [ours, peer] : comparison.pairs) {
    const Row* mine = input.rows.find(ours);
    const Row* other = input.rows.find(peer);
    if (mine == nullptr || other == nullptr) {
      return fmt::format("| {} | – | – | not in a quick run | {} | – |\n", comparison.path, reach);
    }
    if (!mine->measured() || !other->measured()) {
      return fmt::format("| {} | – | – | skipped: {} | {} | – |\n", comparison.path,
                         mine->measured() ? other->skipped : mine->skipped, reach);
    }
    const auto here = ratio(*mine, *other);
    if (worstOurs == nullptr || here.median > worst.median) {
      worst = here;
      worstOurs = mine;
      worstPeer = other;
    }
  }
  return fmt::format("| {} | {} | {} | {} | {} | {} |\n", comparison.path,
                     threeDigits(worstOurs->time().median), threeDigits(worstPeer->time().median),
                     ranged(worst), reach, verdict(worst, comparison.reach));
}

/// One line of a topic's table, with the ratio of each of our rows to it when it is a peer.
std::string topicLine(const Case& one, const Bar& bar, bool isPeer, std::size_t columns,
                      const Input& input) {
  const Row* row = input.rows.find(bar.row);
  if (row == nullptr) return "";
  auto line = fmt::format("| {} | {} ", one.label, isPeer ? bar.label : "**" + bar.label + "**");
  if (!row->measured()) {
    line += fmt::format("| skipped: {} | ", row->skipped);
  } else {
    line += fmt::format("| {} | {:.1f} % ", duration(row->time().median), row->spread());
  }
  for (std::size_t k = 0; k < columns; ++k) {
    const Row* mine = isPeer && k < one.ours.size() ? input.rows.find(one.ours[k].row) : nullptr;
    const bool known = mine != nullptr && mine->measured() && row->measured();
    line += fmt::format("| {} ", known ? ranged(ratio(*mine, *row)) : "");
  }
  return line + "|\n";
}

std::string topicSection(const Topic& topic, const Input& input) {
  std::size_t columns = 1;
  for (const auto& one : topic.cases) columns = std::max(columns, one.ours.size());
  auto out = fmt::format("## {}\n\n", topic.title);
  if (!topic.text.empty()) out += topic.text + "\n\n";
  out += fmt::format("![{}](performance/{}.svg)\n\n| | row | median | spread |", topic.title,
                     topic.file);
  for (std::size_t k = 0; k < columns; ++k) {
    out += fmt::format(" {} / row |",
                       columns == 1 ? std::string("Tarvo") : topic.cases.front().ours[k].label);
  }
  out += "\n|---|---|--:|--:|";
  for (std::size_t k = 0; k < columns; ++k) out += "--:|";
  out += "\n";
  for (const auto& one : topic.cases) {
    for (const auto& bar : one.ours) out += topicLine(one, bar, false, columns, input);
    for (const auto& bar : one.peers) out += topicLine(one, bar, true, columns, input);
  }
  return out + "\n";
}

/// Rows that no table names, so that nothing measured stays hidden.
std::string otherRows(const Input& input) {
  const auto named = namedRows();
  std::string lines;
  for (const auto& [name, row] : input.rows.all()) {
    if (named.contains(name) || !row.measured()) continue;
    lines +=
        fmt::format("| `{}` | {} | {:.1f} % |", name, duration(row.time().median), row.spread());
    for (const auto& [counter, value] : row.counters) {
      lines += fmt::format(" {} {}", counter, threeDigits(value));
    }
    lines += " |\n";
  }
  if (lines.empty()) return "";
  return "## Other rows\n\n| row | median | spread | counted |\n|---|--:|--:|---|\n" + lines + "\n";
}

std::string skippedRows(const Input& input) {
  std::string lines;
  for (const auto& [name, row] : input.rows.all()) {
    if (!row.measured()) lines += fmt::format("- `{}`: {}\n", name, row.skipped);
  }
  if (lines.empty()) return "No row was skipped.\n\n";
  return "These rows could not be measured on this machine:\n\n" + lines + "\n";
}

std::string instructionsSection(const Input& input) {
  if (input.instructions.empty()) return "";
  std::string out =
      "## Instructions\n\nOf one run of each hot path, counted by callgrind on Debian 12, x86_64. "
      "They "
      "do not depend on how fast or busy the machine is; `./dev check` fails when one grows.\n\n"
      "| path | instructions |\n|---|--:|\n";
  for (const auto& [path, count] : input.instructions) {
    out += fmt::format("| {} | {:.1f} |\n", path, count);
  }
  return out + "\n";
}

std::string machineSection(const Input& input) {
  std::string out = "## The machine\n\n| | |\n|---|---|\n";
  for (const auto& [name, fact] : machineFacts()) out += fmt::format("| {} | {} |\n", name, fact);
  out += fmt::format("| load at the start | {} |\n", input.loadAtStart);
  return out + "\n" + skippedRows(input);
}

}  // namespace

std::vector<std::string> missingRows(const Input& input) {
  std::vector<std::string> missing;
  for (const auto& name : namedRows()) {
    if (input.rows.find(name) == nullptr && !leftOut(name, input.quick)) missing.push_back(name);
  }
  return missing;
}

std::vector<std::string> failedRows(const Input& input) {
  std::vector<std::string> failed;
  for (const auto& [name, row] : input.rows.all()) {
    for (const auto& reason : row.failures) failed.push_back(fmt::format("{}: {}", name, reason));
  }
  return failed;
}

std::string summary(const Input& input) {
  std::string out =
      "| path | ours ns | peer ns | ratio | reach | reached? |\n"
      "|---|--:|--:|--:|--:|---|\n";
  for (const auto& comparison : comparisons()) out += comparisonLine(comparison, input);
  return out;
}

std::string page(const Input& input) {
  std::string out = "# Performance\n\n";
  if (input.quick) out += "**A quick run: it shows that all works; its figures mean nothing.**\n\n";
  const auto [fewest, most] = input.rows.repetitions();
  out += fmt::format(
      "Made by `./dev bench`; [bench/README.md](../bench/README.md) explains the rows. Times are "
      "of "
      "the processor and medians of {} repetitions, interleaved at random with those of the peers "
      "in the same program. A ratio is that of the medians, less than 1 where Tarvo is faster; in "
      "brackets the quartiles of the ratios of every repetition to every one of the peer. Spread "
      "is the distance of the quartiles in percent of the median.\n\n",
      fewest == most ? fmt::format("{}", most)
                     : fmt::format("{} (where there are a million of anything, {})", most, fewest));
  out += "## Summary\n\n\"Near\" means that the reach lies between the quartiles.\n\n" +
         summary(input) + "\n";
  for (const auto& topic : topics()) out += topicSection(topic, input);
  out += growthSection(input.rows) + memorySection(input.rows) + otherRows(input);
  return out + instructionsSection(input) + machineSection(input);
}

std::vector<Chart> charts(const Input& input) {
  std::vector<Chart> all;
  for (const auto& topic : topics()) {
    std::vector<ChartGroup> groups;
    for (const auto& one : topic.cases) {
      ChartGroup group{one.label, {}};
      for (const auto& bar : bars(one)) {
        const Row* row = input.rows.find(bar.row);
        if (row == nullptr || !row->measured()) continue;
        group.bars.push_back({bar.label, row->time().median, bar.label.starts_with("Tarvo")});
      }
      if (!group.bars.empty()) groups.push_back(group);
    }
    all.push_back({topic.file, barChart(groups)});
  }
  all.push_back({"growth", growthChart(input.rows)});
  return all;
}

}  // namespace report
