// Text between the platform (UTF-16) and the lab's documents (UTF-8), and the few number formats of the journal.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace lab
{

[[nodiscard]] std::string Utf8(std::wstring_view text);
[[nodiscard]] std::string Utf8(const wchar_t* text); // null gives ""
[[nodiscard]] std::wstring Wide(std::string_view text);

// Letter case ignored as the platform ignores it for names: ASCII only.
[[nodiscard]] bool EqualNoCase(std::string_view a, std::string_view b) noexcept;
[[nodiscard]] std::string Lower(std::string_view text);

[[nodiscard]] std::string Hex32(std::uint32_t value);                          // "0x80041017"
[[nodiscard]] std::optional<std::uint32_t> ParseNumber(std::string_view text); // "0x…" or decimal, sign allowed
[[nodiscard]] std::string TimeText(std::uint64_t fileTime);                    // "2026-01-31T12:34:56.1234567Z"

} // namespace lab
