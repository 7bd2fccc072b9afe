#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "NetUtilities/Trace.h"
#include "tests/unit/support/TraceRecorder.h"

// What the code under test wrote to the trace since construction. A line counts when it begins with the text asked for:
// a failing code may stand behind it.
class TraceLines
{
public:
    TraceLines() { Clear(); }

    [[nodiscard]] static std::vector<std::wstring> All() { return TraceRecorder::Get().Messages(); }
    [[nodiscard]] static bool Has(const std::wstring& text) { return Count(text) > 0; }
    [[nodiscard]] static int Count(const std::wstring& text)
    {
        int count = 0;
        for (const std::wstring& line : All())
        {
            count += line.starts_with(text) ? 1 : 0;
        }
        return count;
    }
    // The same for a line of this source and level.
    [[nodiscard]] static bool Has(Log::Source source, std::uint16_t level, const std::wstring& text)
    {
        const std::vector<RecordedLine> lines = TraceRecorder::Get().Lines();
        return std::any_of(lines.begin(), lines.end(),
                           [&](const RecordedLine& line)
                           {
                               return line.source == static_cast<std::uint16_t>(source) && line.level == level &&
                                      line.Message().starts_with(text);
                           });
    }
    static void Clear()
    {
        // What is still on its way belongs to the time before.
        static_cast<void>(All());
        TraceRecorder::Get().Reset();
    }
};
