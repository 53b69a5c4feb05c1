#include "Tarvo/FunctionScope.h"

namespace {

using Tarvo::Impl::ScopeParser;

constexpr bool reads(std::string_view pretty, std::string_view scope, std::string_view func) {
  const auto views = ScopeParser(pretty).parse();
  return views.scope == scope && views.func == func;
}

static_assert(reads("int main()", "", "main"));
static_assert(reads("static std::shared_ptr<a::B> x::Y::get(const a::C&, bool)", "Y", "get"));
static_assert(reads("void ns::Map<K, V>::insert(K) [with K = std::pair<int, a::B>; V = int]", "Map",
                    "insert"));
static_assert(reads("std::ostream& n::operator<<(std::ostream&, const Foo&)", "n", "operator<<"));
static_assert(reads("void (* n::Foo::pick(int))(double)", "Foo", "pick"));
static_assert(reads("n::Foo::run(int) const::<lambda(auto:1)> [with auto:1 = int]", "Foo", "run"));
static_assert(reads("void n::{anonymous}::help(int)", "n", "help"));
static_assert(reads("void f(int)::Local::go()", "Local", "go"));
static_assert(reads("decltype (t->x()) n::Foo::of(T) [with T = A]", "Foo", "of"));
static_assert(reads("n::<lambda()>", "n", ""));

}  // namespace
