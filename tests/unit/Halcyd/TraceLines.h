#pragma once

#include <string>
#include <vector>

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
    static void Clear()
    {
        // What is still on its way belongs to the time before.
        static_cast<void>(All());
        TraceRecorder::Get().Reset();
    }
};
