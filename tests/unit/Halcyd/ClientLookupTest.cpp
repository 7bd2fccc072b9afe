#include "Halcyd/ClientLookup.h"

#include <gtest/gtest.h>
#include <sddl.h>

#include <memory>
#include <vector>

#include "tests/unit/support/TraceRecorder.h"
#include "NetUtilities/Handles.h"

namespace
{
std::wstring TextOf(const wchar_t* sddlSid, DWORD size, BOOL expected = TRUE)
{
    PSID sid = nullptr;
    EXPECT_TRUE(ConvertStringSidToSidW(sddlSid, &sid));
    const UniqueLocal owner(sid);
    std::vector<wchar_t> buffer(size + 1, L'?');
    EXPECT_EQ(GetTextualSid(sid, buffer.data(), &size), expected);
    return expected ? std::wstring(buffer.data()) : std::wstring();
}
} // namespace

TEST(ClientProcessName, ComparesTheWholeNameInAnyCase)
{
    EXPECT_TRUE(ClientLookup::IsClientProcessName(L"Sorvane.exe"));
    EXPECT_TRUE(ClientLookup::IsClientProcessName(L"SORVANE.EXE"));
    EXPECT_TRUE(ClientLookup::IsClientProcessName(L"pRobEhost.exe"));
    EXPECT_FALSE(ClientLookup::IsClientProcessName(L"Sorvane"));
    EXPECT_FALSE(ClientLookup::IsClientProcessName(L"Sorvane.exe2"));
    EXPECT_FALSE(ClientLookup::IsClientProcessName(L"MySorvane.exe"));
    EXPECT_FALSE(ClientLookup::IsClientProcessName(L""));
}

TEST(TextualSid, MatchesThePlatformsOwnText)
{
    for (const wchar_t* const text : {L"S-1-5-18", L"S-1-5-21-1-2-4294967295-1000", L"S-1-1-0", L"S-1-16-12288"})
    {
        EXPECT_EQ(TextOf(text, 200), text);
    }
}

TEST(TextualSid, BufferOfExactlyTheNeededSizeIsEnough)
{
    EXPECT_EQ(ClientLookup::TextualSidSize(5), 88u);
    EXPECT_EQ(TextOf(L"S-1-5-21-1-2-3-1000", 88), L"S-1-5-21-1-2-3-1000");
}

TEST(TextualSid, BufferOneShortIsRefusedWithTheNeededSizeStored)
{
    PSID sid = nullptr;
    ASSERT_TRUE(ConvertStringSidToSidW(L"S-1-5-21-1-2-3-1000", &sid));
    const UniqueLocal owner(sid);
    TraceRecorder::Get().Reset();
    wchar_t buffer[88] = L"?";
    DWORD size = 87;
    EXPECT_FALSE(GetTextualSid(sid, buffer, &size));
    EXPECT_EQ(GetLastError(), ERROR_INSUFFICIENT_BUFFER);
    EXPECT_EQ(size, 88u);
    EXPECT_STREQ(buffer, L"?");
    EXPECT_TRUE(TraceRecorder::Get().HasMessageStarting(L"your buffer is not big enough Error 122 (0x7a)"));
}

TEST(TextualSid, InvalidSidIsRefused)
{
    TraceRecorder::Get().Reset();
    BYTE nonsense[sizeof(SID)]{};
    nonsense[0] = 9; // no such revision
    wchar_t buffer[100]{};
    DWORD size = 100;
    EXPECT_FALSE(GetTextualSid(nonsense, buffer, &size));
    EXPECT_TRUE(TraceRecorder::Get().HasMessage(L"sid not valid"));
}

TEST(TextualSid, AuthorityBeyond32BitsIsWrittenAsHexadecimalDigits)
{
    const SID_IDENTIFIER_AUTHORITY large = {{0x01, 0x02, 0x03, 0x04, 0x05, 0x06}};
    const DWORD subAuthorities[] = {7};
    EXPECT_EQ(ClientLookup::SidText(large, subAuthorities), L"S-1-0x10203040506-7");
    const SID_IDENTIFIER_AUTHORITY nt = {{0, 0, 0, 0, 0, 5}};
    EXPECT_EQ(ClientLookup::SidText(nt, {}), L"S-1-5");
}

TEST(ClientLookup, WithoutAClientTheTokenIsNullAndTheBufferUntouched)
{
    EXPECT_EQ(GetSorvaneTokenHandle(), nullptr);
    wchar_t buffer[100] = L"untouched";
    EXPECT_EQ(GetSorvaneUserSid(buffer, 100), buffer);
    EXPECT_STREQ(buffer, L"untouched");
}

// Starts a copy of this test program under the client's name, in mixed case, that only waits.
TEST(ClientLookup, RunningClientGivesItsTokenAndItsUsersSid)
{
    wchar_t self[MAX_PATH]{};
    GetModuleFileNameW(nullptr, self, MAX_PATH);
    wchar_t folder[MAX_PATH]{};
    GetTempPathW(MAX_PATH, folder);
    const std::wstring client = std::wstring(folder) + L"sOrVaNe.ExE";
    // Any program that stays will do; the system's own "ping" waits for its replies.
    wchar_t system[MAX_PATH]{};
    GetSystemDirectoryW(system, MAX_PATH);
    ASSERT_TRUE(CopyFileW((std::wstring(system) + L"\\cmd.exe").c_str(), client.c_str(), FALSE));

    UniqueHandle readEnd;
    UniqueHandle writeEnd;
    SECURITY_ATTRIBUTES inherit{sizeof(inherit), nullptr, TRUE};
    ASSERT_TRUE(CreatePipe(readEnd.put(), writeEnd.put(), &inherit, 0));
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = readEnd.get(); // nothing ever comes, so the program stays
    PROCESS_INFORMATION process{};
    ASSERT_TRUE(CreateProcessW(client.c_str(), nullptr, nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                               &startup, &process));
    const UniqueHandle processHandle(process.hProcess);
    const UniqueHandle threadHandle(process.hThread);

    const UniqueHandle token(GetSorvaneTokenHandle());
    EXPECT_TRUE(token);
    wchar_t buffer[200]{};
    EXPECT_EQ(GetSorvaneUserSid(buffer, 200), buffer);
    EXPECT_EQ(std::wstring_view(buffer).substr(0, 6), L"S-1-5-");

    TerminateProcess(processHandle.get(), 0);
    WaitForSingleObject(processHandle.get(), INFINITE);
    DeleteFileW(client.c_str());
}
