// What goes to the file logger and to the debugger instead of the trace service.

#include <windows.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "NetUtilities/FileLogger.h"
#include "NetUtilities/FunctionName.h"
#include "NetUtilities/Logger.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/TextHelpers.h"
#include "NetUtilities/Trace.h"
#include "FallbackFixtures.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

namespace
{
TEST_F(FallbackTest, SourceOutOfRangeIsToldInTwoLines)
{
    LogMessage(static_cast<Log::Source>(37), 1, L"whose is this");
    (void)recorder.Lines();
    const auto texts = keeping->Texts();
    ASSERT_EQ(2U, texts.size());
    EXPECT_EQ(L"Info:  ********** Logging source 37 out of range! **********", texts[0]);
    EXPECT_TRUE(texts[1].starts_with(L"Info:  "));
    EXPECT_TRUE(texts[1].ends_with(L": whose is this")) << "with its stamp";
}

TEST_F(FallbackTest, LineHasTheModuleNameInBracketsAndAStamp)
{
    WriteToFileLog(L"Info:  x");
    const auto lines = keeping->Lines();
    ASSERT_EQ(1U, lines.size());
    EXPECT_TRUE(lines[0].starts_with(L"[UnitTestsNet] "));
    EXPECT_TRUE(
        lines[0].ends_with(FormatText(L" {:05x}-{:05x}: Info:  x\n", GetCurrentProcessId(), GetCurrentThreadId())));
}

TEST_F(FallbackTest, FailedWriteIsToldWithItsCode)
{
    recorder.SetResults(S_OK, S_OK, static_cast<HRESULT>(0xDEADBEEF));
    LogMessage(Log::Source::General, 1, L"x");
    (void)recorder.Lines();
    (void)recorder.Lines(); // the telling comes behind the arrival
    EXPECT_TRUE(FileLogHas(L"Error: Unable to send log message! Error 3735928559 (0xdeadbeef)"));
}

TEST_F(FallbackTest, FailedGlobalLevelIsToldWithItsCode)
{
    recorder.SetResults(static_cast<HRESULT>(0xDEADBEEF), S_OK, S_OK);
    LogMessage(Log::Source::General, 1, L"x");
    (void)recorder.Lines();
    EXPECT_TRUE(
        FileLogHas(L"Error: Unable to get current log level from TraceLogManager! Error 3735928559 (0xdeadbeef)"));
}

TEST_F(FallbackTest, RefreshIsToldOnlyWithFlagSixteen)
{
    LogMessage(Log::Source::General, 1, L"x");
    (void)recorder.Lines();
    EXPECT_TRUE(keeping->Texts().empty());
    SetUserFlags(1U << 16);
    clock.AdvanceSeconds(61);
    (void)recorder.Lines();
    (void)recorder.Lines();
    EXPECT_EQ((std::vector<std::wstring>{L"Debug: Updating Global log levels from service.",
                                         L"Debug: Updating Source log levels from service.",
                                         L"Debug: Done updating from service."}),
              keeping->Texts());
}

TEST_F(FallbackTest, ScopeByOutputOneGoesToTheFileLog)
{
    {
        const ScopeTrace scope(LogOutput::FileLog, 32, 0, L"detail");
    }
    const auto texts = keeping->Texts();
    ASSERT_EQ(2U, texts.size());
    EXPECT_TRUE(texts[0].starts_with(L"Debug: Enter ==> "));
    EXPECT_TRUE(texts[1].starts_with(L"Debug: Exit  <== "));
    EXPECT_TRUE(recorder.Messages().empty());
}

TEST_F(FallbackTest, BadAddressTextIsToldOnlyIfAskedTo)
{
    std::uint32_t address = 0;
    EXPECT_FALSE(TextToIpv4(L"10.1", address, false));
    EXPECT_FALSE(TextToIpv4(L"", address, true));
    EXPECT_TRUE(keeping->Texts().empty());
    EXPECT_FALSE(TextToIpv4(L"10.1", address, true));
    const auto texts = keeping->Texts();
    ASSERT_EQ(1U, texts.size());
    EXPECT_TRUE(texts[0].starts_with(L"Error: NetUtilities::Unicode2Address RtlIpv4StringToAddress '10.1' Error "));
}

// --- The debugger channel ---

TEST_F(DebuggerChannelTest, BothFormsGiveTheSameLine)
{
    WriteDebugger(L"{text}");
    WriteDebuggerPlain(L"{text}");
    EXPECT_EQ((std::vector<std::wstring>{L"QRLC: {text}\n", L"QRLC: {text}\n"}), Texts());
}

TEST_F(DebuggerChannelTest, LocationFormNamesFunctionAndLine)
{
    const auto location = std::source_location::current();
    WriteDebuggerLocation(L"text", location);
    EXPECT_EQ((std::vector<std::wstring>{FormatText(L"QRLC: location {} Line {} - text\n",
                                                    ShortFunctionName(location.function_name()), location.line())}),
              Texts());
}

TEST_F(DebuggerChannelTest, SwitchOffWritesNothing)
{
    SetDebugOutput(0);
    WriteDebugger(L"x");
    WriteDebuggerPlain(L"x");
    WriteDebuggerLocation(L"x");
    EXPECT_TRUE(Texts().empty());
}

TEST_F(DebuggerChannelTest, LoggersOwnScopesCarryItsIdentity)
{
    const auto logger = Logger::Instance();
    LogMessage(Log::Source::General, 1, L"x");
    logger->Stop();
    const std::wstring end = L" -- " + logger->Identity() + L" pid ";
    for (const wchar_t* name :
         {L"Logger::Initialize", L"Logger::LoggerThread", L"Logger::InitializeLogManager", L"Logger::Stop"})
    {
        const auto texts = Texts();
        for (const wchar_t* direction : {L"QRLC: Enter ==> ", L"QRLC: Exit  <== "})
        {
            const std::wstring start = direction + std::wstring(name) + end;
            EXPECT_EQ(1, std::count_if(texts.begin(), texts.end(),
                                       [&](const std::wstring& text) { return text.starts_with(start); }))
                << std::string(start.begin(), start.end());
        }
    }
}

TEST_F(DebuggerChannelTest, FileMutexThatCannotBeMadeIsTold)
{
    // An event of the same name is in the way.
    fileLogger.reset();
    RestartTrace();
    const UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, L"QrlcFileLogger"));
    ASSERT_TRUE(event);
    {
        const KeepingFileLogger logger;
    }
    const auto texts = Texts();
    EXPECT_TRUE(std::any_of(texts.begin(), texts.end(), [](const std::wstring& text)
                            { return text.starts_with(L"QRLC: LoggerBase::LoggerBase() OpenMutex Error 6 (0x6)"); }));
}
} // namespace
