// Object paths: "Class", "Class.Key='value'", "Class.Key=5", "Class='value'", "Class=@", each with
// "\\server\namespace:" or "namespace:" in front if need be.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace lab::wmi
{

struct ObjectPath
{
    std::wstring className;
    std::optional<std::wstring> property; // of the key, if it is named
    std::optional<std::wstring> key;      // none: the path of the class
};

// Nothing if the text is no path.
[[nodiscard]] std::optional<ObjectPath> ParsePath(std::wstring_view text);

} // namespace lab::wmi
