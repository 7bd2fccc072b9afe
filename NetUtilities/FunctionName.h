#pragma once
// Pure text, no platform: compiled natively too.

#include <string>
#include <string_view>

// The short name of a function, as scope lines print it, from the signature text of a source location:
// "HRESULT CServiceModule::Run(int)" gives "CServiceModule::Run". The result is the same for each compiler's way
// of writing a signature; see FunctionName.cpp for the rules. A text that is no function signature gives an empty name.
[[nodiscard]] std::wstring ShortFunctionName(std::string_view signature);

// The class part of a short name: all before the last "::", or an empty text for a free function.
[[nodiscard]] std::wstring_view ClassPartOf(std::wstring_view shortName) noexcept;
