#include "Tarvo/PrometheusPages.h"

#include <fmt/format.h>

#include <map>
#include <string_view>
#include <vector>

#include "Tarvo/Exception.h"

namespace Tarvo {

namespace {

constexpr std::string_view help = "# HELP ";
constexpr std::string_view type = "# TYPE ";
constexpr std::string_view rootLabel = "{root=\"";

[[noreturn]] void refuse(std::size_t page, std::string_view line) {
  RuntimeException::throwException(
      fmt::format("page {} for Prometheus is not one of this library, or not whole, at: {}",
                  page + 1, line.substr(0, 80)));
}

/// Collects the families of all pages, in the order of their first occurrence.
class Joiner {
 public:
  void add(std::size_t page, std::string_view text) {
    page_ = page;
    family_ = nullptr;
    names_.clear();
    while (!text.empty()) {
      const std::size_t end = text.find('\n');
      if (end == std::string_view::npos) refuse(page_, text);
      take(text.substr(0, end + 1));
      text.remove_prefix(end + 1);
    }
  }
  String text() const {
    String all;
    for (const auto* family : order_) all += family->second.head + family->second.series;
    return all;
  }

 private:
  struct Family {
    String head;
    String series;
    std::size_t page;  // the page from which the head was taken
  };
  using Families = std::map<std::string_view, Family>;  // the keys point into the pages

  void take(std::string_view line) {
    if (line.starts_with(help) || line.starts_with(type)) return takeHead(line);
    const std::size_t name = line.find(rootLabel);
    if (family_ == nullptr || line.substr(0, name) != family_->first) refuse(page_, line);
    const std::size_t value = name + rootLabel.size();
    std::size_t end = value;
    while (end < line.size() && line[end] != '"') end += line[end] == '\\' ? 2 : 1;
    if (end >= line.size()) refuse(page_, line);
    String& series = family_->second.series;
    series += line.substr(0, value);
    series += nameOf(line.substr(value, end - value));
    series += line.substr(end);
  }

  void takeHead(std::string_view line) {
    const std::string_view rest = line.substr(help.size());
    const std::size_t end = rest.find(' ');
    if (end == std::string_view::npos) refuse(page_, line);
    const auto [found, isNew] = families_.try_emplace(rest.substr(0, end));
    family_ = &*found;
    if (isNew) {
      found->second.page = page_;
      order_.push_back(family_);
    }
    if (found->second.page == page_) found->second.head += line;
  }

  /// The name in the joined page of a root of this page: unchanged, or with "#2" and so on where an
  /// earlier page has used it.
  const String& nameOf(std::string_view root) {
    const auto found = names_.find(root);
    if (found != names_.end()) return found->second;
    String name(root);
    unsigned& given = taken_[name];
    while (given++ > 0) {
      name = fmt::format("{}#{}", root, given);
      if (taken_.emplace(name, 1).second) break;
    }
    return names_.emplace(root, std::move(name)).first->second;
  }

  std::size_t page_ = 0;
  Families families_;
  std::vector<Families::value_type*> order_;
  Families::value_type* family_ = nullptr;
  std::map<std::string_view, String> names_;
  std::map<String, unsigned> taken_;  // used names, and the last "#" number given to each
};

}  // namespace

String joinPrometheusPages(std::span<const String> pages) {
  Joiner joiner;
  for (std::size_t i = 0; i < pages.size(); ++i) joiner.add(i, pages[i]);
  return joiner.text();
}

}  // namespace Tarvo
