#include "ReportChart.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <iterator>

#include "ReportText.h"

namespace report {

namespace {

constexpr const char* textColour = "#7d7d7d";
constexpr const char* ourColour = "#e07b00";
constexpr const char* peerColour = "#7f96b2";

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '<') {
      out += "&lt;";
    } else if (c == '&') {
      out += "&amp;";
    } else {
      out += c;
    }
  }
  return out;
}

std::string opening(int width, int height) {
  return fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} "
      "{1}\" font-family=\"sans-serif\" font-size=\"12\" fill=\"{2}\">\n",
      width, height, textColour);
}

std::string text(double x, double y, const std::string& content, const char* more = "") {
  return fmt::format("<text x=\"{:.0f}\" y=\"{:.0f}\"{}>{}</text>\n", x, y, more, escaped(content));
}

}  // namespace

std::string barChart(const std::vector<ChartGroup>& groups) {
  constexpr int width = 720;
  constexpr int labels = 170;
  constexpr int longest = width - labels - 90;
  constexpr int step = 18;
  constexpr int head = 24;
  int y = 0;
  std::string body;
  for (const auto& [label, bars] : groups) {
    y += head;
    body += text(8, y - 7, label, " font-weight=\"bold\"");
    double most = 0;
    for (const auto& bar : bars) most = std::max(most, bar.nanoseconds);
    for (const auto& bar : bars) {
      const double length = std::max(1.0, longest * bar.nanoseconds / most);
      body += text(labels - 8, y + 13, bar.label, " text-anchor=\"end\"");
      body += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{:.1f}\" height=\"{}\" fill=\"{}\"/>\n",
                          labels, y + 2, length, step - 4, bar.ours ? ourColour : peerColour);
      body += text(labels + length + 6, y + 13, duration(bar.nanoseconds));
      y += step;
    }
  }
  return opening(width, y + 8) + body + "</svg>\n";
}

namespace {

/// Where sizes and costs lie in the picture.
class LogScale {
 public:
  static constexpr int left = 70, right = 500, top = 14, bottom = 360;

  explicit LogScale(const std::vector<ChartLine>& lines) {
    for (const auto& line : lines) {
      for (const auto& [size, cost] : line.points) {
        lastSize_ = std::max(lastSize_, std::ceil(std::log10(size)));
        firstCost_ = std::min(firstCost_, std::floor(std::log10(cost)));
        lastCost_ = std::max(lastCost_, std::ceil(std::log10(cost)));
      }
    }
  }
  double x(double size) const { return left + (right - left) * std::log10(size) / lastSize_; }
  double y(double cost) const {
    return bottom - (bottom - top) * (std::log10(cost) - firstCost_) / (lastCost_ - firstCost_);
  }

  std::string grid() const {
    std::string out;
    const auto rule = [&out](double x1, double y1, double x2, double y2) {
      out += fmt::format(
          "<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{:.1f}\" y2=\"{:.1f}\" stroke=\"{}\" "
          "stroke-opacity=\"0.35\"/>\n",
          x1, y1, x2, y2, textColour);
    };
    for (double power = 0; power <= lastSize_; ++power) {
      const double size = std::pow(10.0, power);
      rule(x(size), top, x(size), bottom);
      out += text(x(size), bottom + 16, count(size), " text-anchor=\"middle\"");
    }
    for (double power = firstCost_; power <= lastCost_; ++power) {
      const double cost = std::pow(10.0, power);
      rule(left, y(cost), right, y(cost));
      out += text(left - 6, y(cost) + 4, duration(cost), " text-anchor=\"end\"");
    }
    return out;
  }

 private:
  double lastSize_ = 1, firstCost_ = 9, lastCost_ = 0;
};

/// Heights for the names at the ends of the lines, in the order of the lines but far enough apart.
std::vector<double> nameHeights(const std::vector<ChartLine>& lines, const LogScale& scale) {
  constexpr double apart = 15;
  std::vector<std::pair<double, std::size_t>> wanted;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    wanted.emplace_back(scale.y(lines[i].points.back().second) + 4, i);
  }
  std::sort(wanted.begin(), wanted.end());
  std::vector<double> heights(lines.size());
  double next = LogScale::top;
  for (std::size_t k = 0; k < wanted.size(); ++k) {
    // What is still to come needs its room above the bottom.
    const double room = LogScale::bottom + 4 - apart * static_cast<double>(wanted.size() - 1 - k);
    next = std::max(next, std::min(wanted[k].first, room));
    heights[wanted[k].second] = next;
    next += apart;
  }
  return heights;
}

}  // namespace

std::string lineChart(const std::vector<ChartLine>& lines) {
  static constexpr std::array ours{"#e07b00", "#c8551b", "#d9a300", "#b8860b", "#e05a5a"};
  static constexpr std::array peers{"#7f96b2", "#5b9aa0", "#8f86c0"};
  const LogScale scale(lines);
  const auto heights = nameHeights(lines, scale);
  std::string body = scale.grid();
  std::size_t ofOurs = 0, ofPeers = 0;
  for (std::size_t i = 0; i < lines.size(); ++i) {
    const auto& line = lines[i];
    const char* colour = line.ours ? ours[ofOurs++ % ours.size()] : peers[ofPeers++ % peers.size()];
    std::string points;
    for (const auto& [size, cost] : line.points) {
      fmt::format_to(std::back_inserter(points), "{:.1f},{:.1f} ", scale.x(size), scale.y(cost));
    }
    body +=
        fmt::format("<polyline points=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"2\"{}/>\n",
                    points, colour, line.ours ? "" : " stroke-dasharray=\"6 3\"");
    const auto& [lastSize, lastCost] = line.points.back();
    body += fmt::format(
        "<line x1=\"{:.1f}\" y1=\"{:.1f}\" x2=\"{}\" y2=\"{:.1f}\" stroke=\"{}\" "
        "stroke-opacity=\"0.5\"/>\n",
        scale.x(lastSize), scale.y(lastCost), LogScale::right + 14, heights[i] - 4, colour);
    body += fmt::format("<text x=\"{}\" y=\"{:.0f}\" fill=\"{}\">{}</text>\n", LogScale::right + 18,
                        heights[i], colour, escaped(line.label));
  }
  return opening(720, LogScale::bottom + 30) + body + "</svg>\n";
}

}  // namespace report
