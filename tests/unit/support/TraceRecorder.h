#pragma once
// The trace service of the unit tests: a TraceLogManager in this process that keeps every line it is given. Any code
// under test may trace; a test looks at the lines through TraceRecorder::Get().

#include <windows.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "NetUtilities/TraceLogManager.h"

struct RecordedLine
{
    std::uint16_t source = 0;
    std::uint16_t level = 0;
    std::wstring text; // with its stamp

    // The text behind the stamp.
    [[nodiscard]] std::wstring Message() const;
};

class TraceRecorder
{
public:
    [[nodiscard]] static TraceRecorder& Get();

    // Forgets all lines and goes back to level 6 for all, every call succeeding.
    void Reset();
    // Waits until every line logged so far has arrived, then gives all since Reset (without the waiting's own marker).
    [[nodiscard]] std::vector<RecordedLine> Lines();
    // The same, messages only.
    [[nodiscard]] std::vector<std::wstring> Messages();
    // True if a line with this source, level and message arrived since Reset.
    [[nodiscard]] bool Has(std::uint16_t source, std::uint16_t level, std::wstring_view message);
    [[nodiscard]] bool HasMessage(std::wstring_view message);
    [[nodiscard]] bool HasMessageStarting(std::wstring_view start);
    // What is there now, without waiting.
    [[nodiscard]] std::vector<RecordedLine> LinesNow();

    void SetGlobalLevel(std::uint16_t level);
    void SetSourceLevel(std::uint16_t source, std::uint16_t level);
    void SetResults(HRESULT globalLevelResult, HRESULT sourceLevelResult, HRESULT writeLineResult);
    // How often levels were asked for since Reset.
    [[nodiscard]] unsigned GlobalLevelCalls();
    [[nodiscard]] std::vector<std::uint16_t> SourceLevelCalls();

    // The class object under the trace service's class id, multithreaded apartment. Off: creating it fails.
    void RegisterClass();
    void RevokeClass();

    // --- called by the COM object ---
    HRESULT AnswerGlobalLevel(unsigned short* level);
    HRESULT AnswerSourceLevel(unsigned short source, unsigned short* level);
    HRESULT Take(unsigned short source, unsigned short level, BSTR text);

private:
    std::mutex lock;
    std::condition_variable arrived;
    std::vector<RecordedLine> lines;
    std::uint16_t globalLevel = 6;
    std::uint16_t sourceLevels[37] = {};
    HRESULT globalResult = S_OK;
    HRESULT sourceResult = S_OK;
    HRESULT writeResult = S_OK;
    unsigned globalCalls = 0;
    std::vector<std::uint16_t> sourceCalls;
    unsigned markers = 0;
    DWORD cookie = 0;
};

// Makes the process a member of the multithreaded apartment, registers the recorder, lets every level pass; takes the
// singletons down at the end.
class TraceEnvironment : public testing::Environment
{
public:
    void SetUp() override;
    void TearDown() override;
};

// Stops the logger and destroys all singletons, so that the next trace starts from nothing.
void RestartTrace();
