#include "lab/wmi/ObjectPath.h"

#include <algorithm>
#include <cwctype>

namespace lab::wmi
{

namespace
{

bool IsName(std::wstring_view text)
{
    return !text.empty() && std::iswdigit(text.front()) == 0 &&
           std::all_of(text.begin(), text.end(), [](wchar_t c) { return std::iswalnum(c) != 0 || c == L'_'; });
}

} // namespace

std::optional<ObjectPath> ParsePath(std::wstring_view text)
{
    // A colon before any quotation mark ends the namespace.
    const std::size_t quote = std::min(text.find(L'\''), text.find(L'"'));
    if (const std::size_t colon = text.find(L':'); colon != std::wstring_view::npos && colon < quote)
    {
        text.remove_prefix(colon + 1);
    }
    ObjectPath path;
    const std::size_t equals = text.find(L'=');
    std::wstring_view name = text.substr(0, equals);
    if (const std::size_t dot = name.find(L'.'); dot != std::wstring_view::npos)
    {
        path.property = name.substr(dot + 1);
        name = name.substr(0, dot);
        if (!IsName(*path.property) || equals == std::wstring_view::npos)
        {
            return std::nullopt;
        }
    }
    if (!IsName(name))
    {
        return std::nullopt;
    }
    path.className = name;
    if (equals == std::wstring_view::npos)
    {
        return path;
    }
    std::wstring_view value = text.substr(equals + 1);
    if (!value.empty() && (value.front() == L'\'' || value.front() == L'"'))
    {
        if (value.size() < 2 || value.back() != value.front())
        {
            return std::nullopt;
        }
        value = value.substr(1, value.size() - 2);
    }
    else if (value != L"@" && (value.empty() || !std::all_of(value.begin(), value.end(),
                                                             [](wchar_t c) { return std::iswdigit(c) != 0; })))
    {
        return std::nullopt;
    }
    path.key = value;
    return path;
}

} // namespace lab::wmi
