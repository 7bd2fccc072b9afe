#include "NetUtilities/FunctionName.h"

#include <algorithm>
#include <cstddef>
#include <utility>
#include <vector>

// Compilers write a function's signature in their own ways:
//
//   HRESULT CServiceModule::Run(int)                          GCC, clang
//   void __cdecl CServiceModule::Run(void)                    compilers that name the calling convention
//   void {anonymous}::Anon::F()                               GCC
//   void (anonymous namespace)::Anon::F()                     clang
//   main()::<lambda(int)>                                     GCC
//   auto main()::(anonymous class)::operator()(int) const     clang
//   T ns::Tm<T>::m(T) [with T = int]                          GCC
//   T ns::Tm<int>::m(T) [T = int]                             clang
//
// The short name is the qualified name alone, with no return type, arguments or qualifiers, spelled as the third
// kind spells it: the call operator keeps its pair of parentheses, an unnamed namespace is `anonymous-namespace',
// template arguments are the actual ones. A lambda's body is "<lambda>::operator()" of its enclosing function.

namespace
{
constexpr std::string_view AnonymousNamespace = "`anonymous-namespace'";
constexpr std::string_view CallingConvention = "__cdecl";

bool IsIdentifierCharacter(char c) noexcept
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$';
}

// The place behind the bracketed group that starts at `at`, or the end of the text if it is not closed.
std::size_t BehindGroup(std::string_view text, std::size_t at) noexcept
{
    std::size_t depth = 0;
    for (std::size_t i = at; i < text.size(); ++i)
    {
        switch (text[i])
        {
        case '(':
        case '<':
        case '[':
        case '{':
            ++depth;
            break;
        case '>':
            if (i > 0 && text[i - 1] == '-')
            {
                break; // the arrow of a trailing return type
            }
            [[fallthrough]];
        case ')':
        case ']':
        case '}':
            if (depth <= 1)
            {
                return i + 1;
            }
            --depth;
            break;
        default:
            break;
        }
    }
    return text.size();
}

// Skips what may stand between an argument list and the "::" of something local to the function.
std::size_t BehindQualifiers(std::string_view text, std::size_t at) noexcept
{
    constexpr std::string_view qualifiers[] = {" const", " volatile", " noexcept", " mutable", " static", " &&", " &"};
    for (bool found = true; found;)
    {
        found = false;
        for (const std::string_view qualifier : qualifiers)
        {
            if (text.substr(at).starts_with(qualifier))
            {
                at += qualifier.size();
                found = true;
            }
        }
    }
    return at;
}

bool OperatorStartsAt(std::string_view text, std::size_t at) noexcept
{
    constexpr std::string_view word = "operator";
    return text.substr(at).starts_with(word) && (at == 0 || !IsIdentifierCharacter(text[at - 1])) &&
           at + word.size() < text.size() && !IsIdentifierCharacter(text[at + word.size()]);
}

// The place behind an operator's name that starts at `at`: what follows must be its argument list.
std::size_t BehindOperatorName(std::string_view text, std::size_t at) noexcept
{
    at += std::string_view("operator").size();
    if (text.substr(at).starts_with("()"))
    {
        return at + 2;
    }
    const bool conversion = text[at] == ' ';
    while (at < text.size() && text[at] != '(')
    {
        // Only a conversion's type has template brackets; elsewhere < and > are the operator.
        at = conversion && text[at] == '<' ? BehindGroup(text, at) : at + 1;
    }
    return at;
}

struct Substitution
{
    std::string_view parameter;
    std::string_view argument;
};

// Takes the " [with T = int; U = ...]" off the end of a signature and returns its parts.
std::vector<Substitution> TakeSubstitutions(std::string_view& signature)
{
    std::vector<Substitution> result;
    for (std::size_t start = signature.find(" ["); start != std::string_view::npos;
         start = signature.find(" [", start + 1))
    {
        std::string_view list = signature.substr(start + 1);
        if (BehindGroup(list, 0) != list.size() || list.find(" = ") == std::string_view::npos)
        {
            continue;
        }
        signature = signature.substr(0, start);
        list = list.substr(1, list.size() - 2);
        if (list.starts_with("with "))
        {
            list.remove_prefix(5);
        }
        while (!list.empty())
        {
            std::size_t end = 0;
            while (end < list.size() && list[end] != ';' && list[end] != ',')
            {
                end = std::string_view("(<[{").find(list[end]) != std::string_view::npos ? BehindGroup(list, end)
                                                                                         : end + 1;
            }
            const std::string_view entry = list.substr(0, end);
            if (const auto equals = entry.find(" = "); equals != std::string_view::npos)
            {
                result.push_back({entry.substr(0, equals), entry.substr(equals + 3)});
            }
            list.remove_prefix(std::min(list.size(), end + 1));
            while (!list.empty() && list.front() == ' ')
            {
                list.remove_prefix(1);
            }
        }
        break;
    }
    return result;
}

// Puts the actual template arguments where their parameters stand in the name.
std::string Substitute(const std::string& name, const std::vector<Substitution>& substitutions)
{
    std::string result;
    for (std::size_t at = 0; at < name.size();)
    {
        std::size_t end = at;
        while (end < name.size() && IsIdentifierCharacter(name[end]))
        {
            ++end;
        }
        if (end == at)
        {
            result += name[at++];
            continue;
        }
        const std::string_view word = std::string_view(name).substr(at, end - at);
        const bool isArgument = at > 0 && std::string_view("<, (").find(name[at - 1]) != std::string_view::npos;
        const auto known = std::find_if(substitutions.begin(), substitutions.end(),
                                        [&](const Substitution& each) { return each.parameter == word; });
        result += isArgument && known != substitutions.end() ? known->argument : word;
        at = end;
    }
    return result;
}

void Replace(std::string& text, std::string_view from, std::string_view to)
{
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    {
        text.replace(at, from.size(), to);
    }
}

// A group in parentheses that stands where a name would: unnamed things, or a declarator such as "(*ns::f(int))" of
// a function that returns a pointer or reference to a function or array. Gives the declarator's inside, if it is one.
std::string_view DeclaratorInside(std::string_view group) noexcept
{
    const std::string_view inside = group.size() >= 2 ? group.substr(1, group.size() - 2) : std::string_view{};
    const auto arguments = inside.find('(');
    const auto mark = inside.substr(0, arguments).find_last_of("*&");
    return arguments == std::string_view::npos || mark == std::string_view::npos ? std::string_view{}
                                                                                 : inside.substr(mark + 1);
}

constexpr int DeepestDeclarator = 8; // a bound against nonsense, not a rule

std::string QualifiedName(std::string_view text, int depth);

// Handles the group in parentheses at `at`. True if the name is complete: `result` then holds it.
bool TakeParentheses(std::string_view text, std::size_t& at, std::string& name, std::string& result, int depth)
{
    const std::size_t end = BehindGroup(text, at);
    const std::string_view group = text.substr(at, end - at);
    if (group == "(anonymous namespace)")
    {
        name += AnonymousNamespace;
    }
    else if (group == "(anonymous class)" || group.starts_with("(lambda at "))
    {
        name += "<lambda>";
    }
    else if (group.starts_with("(anonymous ") || group.starts_with("(unnamed "))
    {
        name += "<unnamed>";
    }
    else if (!name.empty())
    {
        const std::size_t behind = BehindQualifiers(text, end);
        if (!text.substr(behind).starts_with("::"))
        {
            result = name;
            return true;
        }
        at = behind; // the arguments of an enclosing function
        return false;
    }
    else if (const std::string_view inside = DeclaratorInside(group); !inside.empty() && depth < DeepestDeclarator)
    {
        result = QualifiedName(inside, depth + 1);
        return true;
    }
    at = end; // part of a return type, such as decltype's
    return false;
}

// GCC's lambda stands for its call operator and carries no argument list of its own.
bool TakeLambda(std::string_view text, std::size_t& at, std::string& name)
{
    const std::size_t end = BehindGroup(text, at);
    const std::size_t behind = BehindQualifiers(text, end);
    name += "<lambda>::operator()";
    at = text.substr(behind).starts_with("::") ? behind : end;
    return behind == text.size();
}

std::string QualifiedName(std::string_view text, int depth)
{
    std::string name;
    std::string result;
    for (std::size_t at = 0; at < text.size();)
    {
        const char c = text[at];
        const std::string_view rest = text.substr(at);
        if (c == ' ')
        {
            name.clear(); // that was a specifier or the return type
            ++at;
        }
        else if ((c == '*' || c == '&') && name.empty())
        {
            ++at;
        }
        else if (OperatorStartsAt(text, at))
        {
            const std::size_t end = BehindOperatorName(text, at);
            name += text.substr(at, end - at);
            at = end;
        }
        else if (rest.starts_with("<lambda") || rest.starts_with("{lambda"))
        {
            if (TakeLambda(text, at, name))
            {
                return name;
            }
        }
        else if (rest.starts_with("{anonymous}"))
        {
            name += AnonymousNamespace;
            at += std::string_view("{anonymous}").size();
        }
        else if (c == '(')
        {
            if (TakeParentheses(text, at, name, result, depth))
            {
                return result;
            }
        }
        else if (c == '<' || c == '[' || c == '{')
        {
            const std::size_t end = BehindGroup(text, at);
            name += text.substr(at, end - at);
            at = end;
        }
        else
        {
            name += c;
            ++at;
        }
    }
    return {}; // no argument list: not a function
}

// The rule for signatures that name the calling convention.
std::string NameBehindCallingConvention(std::string_view signature, std::size_t convention)
{
    const std::size_t start = std::min(signature.size(), convention + CallingConvention.size() + 1);
    const std::size_t last = signature.rfind(')');
    if (last == std::string_view::npos || last < start)
    {
        return {};
    }
    std::string name(signature.substr(start, last + 1 - start));
    if (const std::size_t open = name.find('('); open != std::string::npos)
    {
        const bool callOperator = open + 1 < name.size() && name[open + 1] == ')';
        name.resize(callOperator ? open + 2 : open);
    }
    return name;
}
} // namespace

std::wstring ShortFunctionName(std::string_view signature)
{
    std::string name;
    if (const std::size_t convention = signature.find(CallingConvention); convention != std::string_view::npos)
    {
        name = NameBehindCallingConvention(signature, convention);
    }
    else
    {
        const auto substitutions = TakeSubstitutions(signature);
        name = Substitute(QualifiedName(signature, 0), substitutions);
        Replace(name, "__cxx11::", "");
        Replace(name, " *", "*");
        Replace(name, " &", "&");
    }
    std::wstring wide;
    wide.reserve(name.size());
    for (const char c : name)
    {
        wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
    }
    return wide;
}

std::wstring_view ClassPartOf(std::wstring_view shortName) noexcept
{
    const auto separator = shortName.rfind(L"::");
    return separator == std::wstring_view::npos ? std::wstring_view{} : shortName.substr(0, separator);
}
