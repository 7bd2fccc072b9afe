// The query language: SELECT list FROM class [WITHIN seconds] [WHERE condition]. Key words and names in any letter
// case. Conditions know =, <>, !=, <, <=, >, >=, LIKE, IS [NOT] NULL, NOT, AND, OR and parentheses; a value is a text
// in single or double quotes, a number, TRUE, FALSE or NULL. Texts compare without regard to letter case.
#pragma once

#include "lab/wmi/Value.h"

#include <functional>
#include <memory>
#include <optional>

namespace lab::wmi
{

struct Condition
{
    enum class Kind
    {
        Compare,
        And,
        Or,
        Not
    };
    enum class Operator
    {
        Equal,
        NotEqual,
        Less,
        LessOrEqual,
        Greater,
        GreaterOrEqual,
        Like
    };

    Kind kind = Kind::Compare;
    std::wstring property; // of a comparison
    Operator op = Operator::Equal;
    Value value; // nothing, bool, number or text
    std::unique_ptr<Condition> left;
    std::unique_ptr<Condition> right;
};

struct Query
{
    std::vector<std::wstring> properties; // empty: all
    std::wstring className;
    std::optional<double> within;
    std::unique_ptr<Condition> where;
};

// Nothing if the text is no query.
[[nodiscard]] std::optional<Query> ParseQuery(std::wstring_view text);

// True if the object with these values meets the condition (a null condition is met by all). A comparison with a
// missing value is met only by "= NULL" and, for "<> NULL", by a value that is there.
using PropertyReader = std::function<Value(std::wstring_view property)>;
[[nodiscard]] bool Meets(const Condition* condition, const PropertyReader& read);

// Calls `see` for each property that the condition names.
void ForEachProperty(const Condition* condition, const std::function<void(std::wstring_view)>& see);

} // namespace lab::wmi
