#pragma once
// How trace lines are shown. Pure functions.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

// The lines on the screen for one trace line: level, source, text; a text with line breaks takes several, the later
// ones indented. Failures are red, doubtful states yellow, detail faint.
[[nodiscard]] std::vector<std::wstring> TraceLines(std::uint16_t source, std::uint16_t level, std::wstring_view text);
[[nodiscard]] nlohmann::ordered_json TraceJson(std::int64_t number, std::uint16_t source, std::uint16_t level,
                                               std::wstring_view text);
