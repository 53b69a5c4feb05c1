#ifndef TARVO_DETAIL_FUNCTIONSCOPE_H
#define TARVO_DETAIL_FUNCTIONSCOPE_H

/// Names for trace and assertion statements, taken from the compiler at compile time.
///
/// A message begins with the name of the innermost named class or namespace around the function,
/// "::", the function's name and "() ". In a function outside every named scope (main, a C
/// function) it begins with nothing. Template arguments and parameters are left out. Unnamed
/// namespaces are skipped. A lambda counts as part of the function around it.

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

namespace Tarvo::Impl {

/// The names for a statement: non-null static strings. Either may be empty; then the message has
/// neither.
struct ScopeNames {
  const char* className;
  const char* func;
  bool withFunc() const { return className[0] != '\0' && func[0] != '\0'; }
};

/// The two names inside the compiler's description of a function.
struct ScopeViews {
  std::string_view scope;
  std::string_view func;
};

/// Reads a description such as "static void ns::Outer<T>::run(int) const [with T = int]".
class ScopeParser {
 public:
  explicit constexpr ScopeParser(std::string_view pretty) : text_(pretty) {}

  constexpr ScopeViews parse() {
    while (at_ < text_.size()) {
      if (startsWith("operator") && atNameStart()) {
        readOperator();
      } else if (startsWith("(anonymous namespace)")) {
        at_ += std::string_view("(anonymous namespace)").size();
      } else if (startsWith("decltype")) {
        at_ = std::min(text_.find('(', at_), text_.size() - 1);
        skipBracketed();
      } else if (startsWith("::<lambda")) {
        endComponent(2);  // a lambda at namespace scope: no function name
        return {scope_, {}};
      } else if (startsWith("::")) {
        endComponent(2);
      } else if (text_[at_] == ' ' || text_[at_] == '*' || text_[at_] == '&') {
        beginName();
      } else if (text_[at_] == '(' && at_ > componentBegin_) {
        const std::string_view func = component();
        skipBracketed();
        skipQualifiers();
        if (!startsWith("::") || startsWith("::<lambda") || startsWith("::(")) {
          return {scope_, withoutTemplate(func)};
        }
        scope_ = {};  // a local class of this function: continue with its members
        at_ += 2;
        componentBegin_ = at_;
      } else if (text_[at_] == '<' || text_[at_] == '{' || text_[at_] == '[') {
        skipBracketed();
      } else {
        ++at_;
        if (text_[at_ - 1] == '(') componentBegin_ = at_;  // "void (* f(int))(long)"
      }
    }
    return {scope_, withoutTemplate(component())};
  }

 private:
  constexpr bool startsWith(std::string_view what) const {
    return text_.substr(at_).starts_with(what);
  }
  constexpr bool atNameStart() const {
    const std::size_t end = at_ + std::string_view("operator").size();
    return at_ == componentBegin_ && (end >= text_.size() || !isWordChar(text_[end]));
  }
  static constexpr bool isWordChar(char c) {
    return c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  }
  constexpr std::string_view component() const {
    return text_.substr(componentBegin_, at_ - componentBegin_);
  }
  static constexpr std::string_view withoutTemplate(std::string_view name) {
    if (name.starts_with("operator")) return name;
    return name.substr(0, name.find('<'));
  }
  static constexpr bool isUnnamed(std::string_view name) {
    return name.empty() || name[0] == '{' || name[0] == '(' || name[0] == '<';
  }

  constexpr void endComponent(std::size_t separator) {
    const std::string_view name = withoutTemplate(component());
    if (!isUnnamed(component()) && !name.empty()) scope_ = name;
    at_ += separator;
    componentBegin_ = at_;
  }
  constexpr void beginName() {
    ++at_;
    componentBegin_ = at_;
    scope_ = {};
  }
  constexpr void readOperator() {
    at_ += std::string_view("operator").size();
    if (startsWith("()")) {
      at_ += 2;
    } else {
      while (at_ < text_.size() && text_[at_] != '(') ++at_;
    }
  }
  constexpr void skipBracketed() {
    int depth = 0;
    do {
      const char c = text_[at_++];
      if (c == '-' && startsWith(">")) ++at_;  // an arrow closes nothing
      if (c == '(' || c == '<' || c == '{' || c == '[') ++depth;
      if (c == ')' || c == '>' || c == '}' || c == ']') --depth;
    } while (depth > 0 && at_ < text_.size());
  }
  constexpr void skipQualifiers() {
    for (const std::string_view word : {" const", " volatile", " &&", " &", " noexcept"}) {
      if (startsWith(word)) at_ += word.size();
    }
  }

  std::string_view text_;
  std::size_t at_ = 0;
  std::size_t componentBegin_ = 0;
  std::string_view scope_;
};

constexpr std::size_t scopeSize(std::string_view pretty) {
  const ScopeViews views = ScopeParser(pretty).parse();
  return views.scope.size() + views.func.size() + 2;
}

/// Both names, each with a terminating zero, in one array.
template <std::size_t Size>
class FunctionScope {
 public:
  explicit constexpr FunctionScope(std::string_view pretty) {
    const ScopeViews views = ScopeParser(pretty).parse();
    std::size_t at = 0;
    for (const char c : views.scope) text_[at++] = c;
    func_ = ++at;
    for (const char c : views.func) text_[at++] = c;
  }
  constexpr ScopeNames names() const { return {text_.data(), text_.data() + func_}; }

 private:
  std::array<char, Size> text_{};
  std::size_t func_ = 0;
};

}  // namespace Tarvo::Impl

/// Declares `name` as the scope of the enclosing function.
#define TARVO_SCOPE(name)                                                 \
  static constexpr ::Tarvo::Impl::FunctionScope<::Tarvo::Impl::scopeSize( \
      static_cast<const char*>(__PRETTY_FUNCTION__))>                     \
      name(static_cast<const char*>(__PRETTY_FUNCTION__))

#endif
