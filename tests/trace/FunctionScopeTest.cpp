#include "Tarvo/detail/FunctionScope.h"

#include "support/Test.h"

namespace {

constexpr std::array<std::string_view, 3> functions[] = {
    {"int main()", "", "main"},
    {"static std::shared_ptr<a::B> x::Y::get(const a::C&, bool)", "Y", "get"},
    {"void ns::Map<K, V>::insert(K) [with K = std::pair<int, a::B>; V = int]", "Map", "insert"},
    {"std::ostream& n::operator<<(std::ostream&, const Foo&)", "n", "operator<<"},
    {"void (* n::Foo::pick(int))(double)", "Foo", "pick"},
    {"n::Foo::run(int) const::<lambda(auto:1)> [with auto:1 = int]", "Foo", "run"},
    {"void n::{anonymous}::help(int)", "n", "help"},
    {"void (anonymous namespace)::A::help(int)", "A", "help"},
    {"void f(int)::Local::go()", "Local", "go"},
    {"decltype (t->x()) n::Foo::of(T) [with T = A]", "Foo", "of"},
    {"n::<lambda()>", "n", ""}};

TEST(FunctionScopeTest, FindsTheClassAndTheNameInWhatTheCompilerWrites) {
  for (const auto& [pretty, scope, func] : functions) {
    const auto views = Tarvo::Impl::ScopeParser(pretty).parse();
    EXPECT_EQ(views.scope, scope) << pretty;
    EXPECT_EQ(views.func, func) << pretty;
  }
}

}  // namespace
