#include "NetUtilities/FunctionName.h"

#include <source_location>
#include <string>

#include <gtest/gtest.h>

namespace
{
struct Spelling
{
    const char* signature;
    const wchar_t* name;
};

class FunctionName : public testing::TestWithParam<Spelling>
{
};

TEST_P(FunctionName, ComesOutShort)
{
    EXPECT_EQ(GetParam().name, ShortFunctionName(GetParam().signature)) << GetParam().signature;
}

constexpr Spelling WithCallingConvention[] = {
    {"void __cdecl CServiceModule::Run(void)", L"CServiceModule::Run"},
    {"class std::shared_ptr<class Logger> __cdecl Logger::Instance(void)", L"Logger::Instance"},
    {"int __cdecl Comparer::operator ()(int,int) const", L"Comparer::operator ()"},
    {"void __cdecl f", L""},
    {"void __cdecl", L""},
    {")(__cdecl", L""},
};
INSTANTIATE_TEST_SUITE_P(WithCallingConvention, FunctionName, testing::ValuesIn(WithCallingConvention));

constexpr Spelling OfGcc[] = {
    {"HRESULT CServiceModule::Run(int)", L"CServiceModule::Run"},
    {"void ns::Foo::member(int) const", L"ns::Foo::member"},
    {"ns::Foo::Foo()", L"ns::Foo::Foo"},
    {"CServiceModule::~CServiceModule()", L"CServiceModule::~CServiceModule"},
    {"HRESULT CServiceModule::Std(void* (*)(int), int (&)[3])", L"CServiceModule::Std"},
    {"static void CServiceModule::S()", L"CServiceModule::S"},
    {"virtual HRESULT CNetMonSv::Open()", L"CNetMonSv::Open"},
    {"void CServiceModule::operator()(int) const", L"CServiceModule::operator()"},
    {"void CServiceModule::operator()()", L"CServiceModule::operator()"},
    {"bool CServiceModule::operator==(int)", L"CServiceModule::operator=="},
    {"void CServiceModule::operator<<(int)", L"CServiceModule::operator<<"},
    {"int* CServiceModule::operator->()", L"CServiceModule::operator->"},
    {"int& Table::operator[](size_t)", L"Table::operator[]"},
    {"CServiceModule::operator bool()", L"CServiceModule::operator bool"},
    {"static void* CServiceModule::operator new(size_t)", L"CServiceModule::operator new"},
    {"static void* CServiceModule::operator new [](size_t)", L"CServiceModule::operator new []"},
    {"void (* CServiceModule::fp())(int)", L"CServiceModule::fp"},
    {"int (& CServiceModule::ar())[3]", L"CServiceModule::ar"},
    {"std::vector<std::__cxx11::basic_string<wchar_t> > CServiceModule::V(const "
     "std::vector<std::__cxx11::basic_string<wchar_t> >&) const &",
     L"CServiceModule::V"},
    {"void {anonymous}::Anon::F()", L"`anonymous-namespace'::Anon::F"},
    {"void {anonymous}::free_anon()", L"`anonymous-namespace'::free_anon"},
    {"ns::Tm<T>::Tm() [with T = int]", L"ns::Tm<int>::Tm"},
    {"T ns::Tm<T>::m(T) [with T = int]", L"ns::Tm<int>::m"},
    {"T ns::Tm<T>::m(T) [with T = void (*)(int)]", L"ns::Tm<void (*)(int)>::m"},
    {"U ns::Pair<T, U>::g(T, U) [with U = std::__cxx11::basic_string<wchar_t>; T = int]",
     L"ns::Pair<int, std::basic_string<wchar_t>>::g"},
    {"ns::Tm<T>::operator T*() [with T = int]", L"ns::Tm<int>::operator int*"},
    {"void ns::ft(T) [with T = std::vector<void (*)(int)>]", L"ns::ft"},
    {"void ns::nn() [with int N = 3]", L"ns::nn"},
    {"std::function<void(int)> ns::ret()", L"ns::ret"},
    {"decltype (T{}) ns::au2(T) [with T = int; decltype (T{}) = int]", L"ns::au2"},
    {"main()::<lambda(int)>", L"main::<lambda>::operator()"},
    {"Service::Start(int) const::<lambda(auto:11)> mutable [with auto:11 = int]",
     L"Service::Start::<lambda>::operator()"},
    {"void main()::<lambda()>::L::q()", L"main::<lambda>::operator()::L::q"},
    {"bool main()::Loc::operator()(int)", L"main::Loc::operator()"},
    {"int main()", L"main"},
    {"T threadProcedure(void*)", L"threadProcedure"},
};
INSTANTIATE_TEST_SUITE_P(OfGcc, FunctionName, testing::ValuesIn(OfGcc));

constexpr Spelling OfClang[] = {
    {"HRESULT CServiceModule::Std(void *(*)(int), int (&)[3])", L"CServiceModule::Std"},
    {"bool CServiceModule::operator bool()", L"CServiceModule::operator bool"},
    {"int *CServiceModule::operator->()", L"CServiceModule::operator->"},
    {"void (*CServiceModule::fp())(int)", L"CServiceModule::fp"},
    {"int (&CServiceModule::ar())[3]", L"CServiceModule::ar"},
    {"std::vector<std::wstring> CServiceModule::V(const std::vector<std::wstring> &) const &", L"CServiceModule::V"},
    {"static void *CServiceModule::operator new(size_t)", L"CServiceModule::operator new"},
    {"void (anonymous namespace)::Anon::F()", L"`anonymous-namespace'::Anon::F"},
    {"ns::Tm<int>::Tm() [T = int]", L"ns::Tm<int>::Tm"},
    {"U ns::Tm<int>::g(T, U) [T = int, U = std::basic_string<wchar_t>]", L"ns::Tm<int>::g"},
    {"T *ns::Tm<int>::operator int *() [T = int]", L"ns::Tm<int>::operator int*"},
    {"void ns::nn() [N = 3]", L"ns::nn"},
    {"std::function<void (int)> ns::ret()", L"ns::ret"},
    {"<dependent type> ns::au2(T) [T = int]", L"ns::au2"},
    {"auto main()::(anonymous class)::operator()(int) const", L"main::<lambda>::operator()"},
    {"auto main()::(anonymous class)::operator()(auto) const [x:auto = int]", L"main::<lambda>::operator()"},
    {"void main()::(anonymous class)::operator()()::L::q()", L"main::<lambda>::operator()::L::q"},
    {"T ns::Tm<void (*)(int)>::m(T) [T = void (*)(int)]", L"ns::Tm<void (*)(int)>::m"},
};
INSTANTIATE_TEST_SUITE_P(OfClang, FunctionName, testing::ValuesIn(OfClang));

constexpr Spelling NoFunctions[] = {{"", L""},  {"int value", L""}, {"(", L""},
                                    {")", L""}, {"<<<<", L""},      {"operator", L""}};
INSTANTIATE_TEST_SUITE_P(NoFunctions, FunctionName, testing::ValuesIn(NoFunctions));

struct Located
{
    static std::wstring Member(int (*)(int))
    {
        return ShortFunctionName(std::source_location::current().function_name());
    }
    std::wstring operator()() const { return ShortFunctionName(std::source_location::current().function_name()); }
    Located() : made(ShortFunctionName(std::source_location::current().function_name())) {}
    std::wstring made;
};

TEST(FunctionNameOfThisCompiler, MembersConstructorsAndCallOperatorsReadTheSameWithEachCompiler)
{
    EXPECT_EQ(L"`anonymous-namespace'::Located::Member", Located::Member(nullptr));
    EXPECT_EQ(L"`anonymous-namespace'::Located::operator()", Located()());
    EXPECT_EQ(L"`anonymous-namespace'::Located::Located", Located().made);
}

TEST(FunctionNameOfThisCompiler, LambdaIsTheCallOperatorOfItsFunction)
{
    const auto name = [] { return ShortFunctionName(std::source_location::current().function_name()); }();
    EXPECT_TRUE(name.ends_with(L"::TestBody::<lambda>::operator()")) << std::string(name.begin(), name.end());
}

TEST(FunctionNameClassPart, IsAllBeforeTheLastSeparator)
{
    EXPECT_EQ(L"Logger", ClassPartOf(L"Logger::Logger"));
    EXPECT_EQ(L"ns::Foo", ClassPartOf(L"ns::Foo::member"));
    EXPECT_EQ(L"", ClassPartOf(L"main"));
    EXPECT_EQ(L"", ClassPartOf(L""));
}
} // namespace
