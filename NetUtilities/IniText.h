#pragma once
// Text rules of the ini file, without a platform: compiled natively too.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace IniText
{
// The lines worth keeping of a file's UTF-8 bytes: split at line feeds, without empty lines and comments (";").
[[nodiscard]] std::vector<std::wstring> Lines(std::string_view utf8);

// The value of a key in a section; nothing if there is none. Section exact, key without regard to case.
[[nodiscard]] std::optional<std::wstring> Find(const std::vector<std::wstring>& lines, std::wstring_view section,
                                               std::wstring_view key);

// The unsigned decimal at the front of a text, behind blanks and a sign. Raises std::invalid_argument "invalid stoull
// argument" without digits, std::out_of_range "stoull argument out of range" for a number that is too large.
[[nodiscard]] std::uint64_t ToNumber(std::wstring_view text);
} // namespace IniText
