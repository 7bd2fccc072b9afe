#include <windows.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "NetUtilities/CrashGuard.h"
#include "NetUtilities/IniFile.h"
#include "NetUtilities/IniText.h"
#include "NetUtilities/PathData.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/TextHelpers.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

namespace
{
namespace fs = std::filesystem;

// --- Paths ---

TEST(PathData, ExecutableAndModuleAreThisProgram)
{
    EXPECT_EQ(L"UnitTestsNetUtilities.exe", PathText::FileName(GetExecutablePath()));
    EXPECT_EQ(GetExecutablePath(), GetModulePath());
}

TEST(PathData, InstallFolderIsTheExecutablesFolder)
{
    EXPECT_EQ(PathText::ParentFolder(GetExecutablePath()), GetInstallFolder());
}

TEST(PathData, ExecutableInTheSystemFolderYieldsTheRegistrysPath)
{
    EXPECT_TRUE(PathText::RunsFromSystemFolder(L"C:\\windows\\system32", L"C:\\windows\\system32"));
    EXPECT_TRUE(PathText::RunsFromSystemFolder(L"c:\\WINDOWS\\System32\\sub", L"C:\\windows\\system32"));
    EXPECT_FALSE(PathText::RunsFromSystemFolder(L"C:\\Program Files\\x", L"C:\\windows\\system32"));
    EXPECT_FALSE(PathText::RunsFromSystemFolder(L"C:\\Program Files\\x", L""));
}

TEST(PathData, DataFolderIsMadeWithItsSubfolderData)
{
    RestartTrace(); // the path singleton begins anew
    const fs::path folder(GetDataFolder());
    ASSERT_EQ(L"Sorvane", folder.filename().wstring());
    EXPECT_EQ(L"QRLS", folder.parent_path().filename().wstring());
    EXPECT_TRUE(fs::is_directory(folder / "Data"));
    fs::remove_all(folder.parent_path());
    EXPECT_EQ(folder.wstring(), GetDataFolder()) << "kept, not asked again";
    EXPECT_FALSE(fs::exists(folder));
    RestartTrace();
    EXPECT_EQ(folder.wstring(), GetDataFolder());
    EXPECT_TRUE(fs::is_directory(folder / "Data"));
}

TEST(PathData, SystemFolderIsTheSystems)
{
    wchar_t expected[MAX_PATH] = {};
    GetSystemDirectoryW(expected, MAX_PATH);
    EXPECT_EQ(0, _wcsicmp(expected, GetSystemFolder().c_str()));
}

TEST(PathText, PartsOfAPath)
{
    EXPECT_EQ(L"C:\\a", PathText::ParentFolder(L"C:\\a\\b.exe"));
    EXPECT_EQ(L"", PathText::ParentFolder(L"b.exe"));
    EXPECT_EQ(L"b.exe", PathText::FileName(L"C:\\a\\b.exe"));
    EXPECT_EQ(L"b.c", PathText::BaseName(L"C:\\a\\b.c.exe"));
    EXPECT_EQ(L"b", PathText::BaseName(L"C:\\a.d\\b"));
}

// --- Ini text ---

TEST(IniText, EmptyLinesAndCommentsAreLeftOut)
{
    EXPECT_EQ((std::vector<std::wstring>{L"[A]", L" ;kept", L"x=1"}),
              IniText::Lines("\n[A]\r\n;gone\n ;kept\n\r\nx=1"));
}

TEST(IniText, BytesAreUtf8)
{
    EXPECT_EQ((std::vector<std::wstring>{L"k=\x20AC\xD83D\xDE00"}),
              IniText::Lines("\xEF\xBB\xBFk=\xE2\x82\xAC\xF0\x9F\x98\x80\n"));
    EXPECT_EQ((std::vector<std::wstring>{L"k=\xFFFD"
                                         L"a\xFFFD"}),
              IniText::Lines("k=\xFF"
                             "a\xC3"));
}

TEST(IniText, KeyHasNoCaseAndSectionHas)
{
    const auto lines = IniText::Lines("[VPN]\nmask=255.0.0.0\n");
    EXPECT_EQ(L"255.0.0.0", IniText::Find(lines, L"VPN", L"MASK"));
    EXPECT_EQ(std::nullopt, IniText::Find(lines, L"vpn", L"mask"));
    EXPECT_EQ(std::nullopt, IniText::Find(lines, L"VPN", L"mas"));
}

TEST(IniText, BracketAtTheFrontEndsTheSection)
{
    const auto lines = IniText::Lines("a=0\n[A]\na=1\n[B\nb=2\n[C]\nb=3\n");
    EXPECT_EQ(L"1", IniText::Find(lines, L"A", L"a"));
    EXPECT_EQ(std::nullopt, IniText::Find(lines, L"A", L"b"));
    EXPECT_EQ(L"3", IniText::Find(lines, L"C", L"b"));
}

TEST(IniText, ValueStartsBehindTheFirstEqualsSign)
{
    const auto lines = IniText::Lines("[A]\nnothing\nk==x=y\nempty=\n");
    EXPECT_EQ(L"=x=y", IniText::Find(lines, L"A", L"k"));
    EXPECT_EQ(L"", IniText::Find(lines, L"A", L"empty"));
    EXPECT_EQ(std::nullopt, IniText::Find(lines, L"A", L"nothing"));
}

TEST(IniText, NumbersAreUnsignedDecimal)
{
    EXPECT_EQ(0U, IniText::ToNumber(L"0"));
    EXPECT_EQ(24U, IniText::ToNumber(L" +24 bits"));
    EXPECT_EQ(18446744073709551615ULL, IniText::ToNumber(L"18446744073709551615"));
    EXPECT_THROW((void)IniText::ToNumber(L"18446744073709551616"), std::out_of_range);
    for (const wchar_t* text : {L"", L"abc", L"-", L" "})
    {
        try
        {
            (void)IniText::ToNumber(text);
            ADD_FAILURE() << "no exception";
        }
        catch (const std::invalid_argument& failure)
        {
            EXPECT_STREQ("invalid stoull argument", failure.what());
        }
    }
}

class IniFileTest : public testing::Test
{
protected:
    struct Probe : IniFile
    {
        using IniFile::files;
    };
    void SetUp() override
    {
        path = fs::temp_directory_path() / "HalcydIniFileTest.ini";
        fs::remove(path);
    }
    void TearDown() override { fs::remove(path); }
    void Write(const char* text, int secondsAgo)
    {
        {
            std::ofstream file(path, std::ios::binary | std::ios::trunc);
            file << text;
        }
        fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::seconds(secondsAgo));
    }
    fs::path path;
    Probe ini;
};

TEST_F(IniFileTest, MissingFileGivesTheDefaultAndLeavesARecordWithoutExistsFlag)
{
    EXPECT_EQ(L"default", ini.GetString(L"VPN", L"Mask", L"default", path.wstring()));
    ASSERT_EQ(1U, ini.files.count(path.wstring()));
    EXPECT_FALSE(ini.files.at(path.wstring()).exists);
}

TEST_F(IniFileTest, ChangedFileYieldsTheNewValue)
{
    Write("[VPN]\nMask=1\n", 100);
    EXPECT_EQ(L"1", ini.GetString(L"VPN", L"Mask", L"d", path.wstring()));
    Write("[VPN]\nMask=2\n", 100);
    fs::last_write_time(path, fs::file_time_type(std::chrono::duration_cast<fs::file_time_type::duration>(
                                  std::chrono::nanoseconds(ini.files.at(path.wstring()).modified))));
    Write("[VPN]\nMask=3\n", 50);
    EXPECT_EQ(L"3", ini.GetString(L"VPN", L"Mask", L"d", path.wstring()));
    EXPECT_TRUE(ini.files.at(path.wstring()).exists);
}

TEST_F(IniFileTest, FileOfManyPiecesIsReadWhole)
{
    std::string text = "[VPN]\n";
    for (int i = 0; i < 2000; ++i)
    {
        text += "k" + std::to_string(i) + "=" + std::to_string(i * 7) + "\n";
    }
    Write(text.c_str(), 10);
    EXPECT_EQ(L"13993", ini.GetString(L"VPN", L"K1999", L"d", path.wstring()));
}

TEST_F(IniFileTest, DefaultFileIsTestingIniInTheDataFolder)
{
    const fs::path testing = fs::path(GetDataFolder()) / "Testing.ini";
    fs::create_directories(testing.parent_path());
    fs::remove(testing);
    EXPECT_EQ(7U, ini.GetNumber(L"VPN", L"Mask", 7));
    {
        std::ofstream file(testing);
        file << "[VPN]\nMask=24\nEmpty=\nBad=x\n";
    }
    EXPECT_EQ(24U, ini.GetNumber(L"VPN", L"mask", 7));
    EXPECT_EQ(7U, ini.GetNumber(L"VPN", L"Empty", 7));
    EXPECT_THROW((void)ini.GetNumber(L"VPN", L"Bad", 7), std::invalid_argument);
    fs::remove(testing);
}

// --- Versions and addresses ---

TEST(FileVersion, StringOfASystemFileIsFound)
{
    std::wstring version;
    EXPECT_TRUE(GetFileVersionString(GetSystemFolder() + L"\\kernel32.dll", L"ProductVersion", version));
    EXPECT_NE(L"", version);
}

TEST(FileVersion, EmptyArgumentsMissingFilesAndFilesWithoutVersionGiveFalse)
{
    std::wstring version = L"untouched";
    EXPECT_FALSE(GetFileVersionString(L"", L"ProductVersion", version));
    EXPECT_FALSE(GetFileVersionString(GetSystemFolder() + L"\\kernel32.dll", L"", version));
    EXPECT_FALSE(GetFileVersionString(GetSystemFolder() + L"\\no such file.dll", L"ProductVersion", version));
    EXPECT_FALSE(GetFileVersionString(GetExecutablePath(), L"ProductVersion", version));
    EXPECT_FALSE(GetFileVersionString(GetSystemFolder() + L"\\kernel32.dll", L"NoSuchItem", version));
    EXPECT_FALSE(GetClientProductVersion(version)) << "no client beside the tests";
    EXPECT_EQ(L"untouched", version);
}

TEST(AddressText, Ipv4IsDottedInNetworkOrder)
{
    std::wstring text;
    EXPECT_STREQ(L"10.1.2.3", Ipv4ToText(0x0302010A, text));
    EXPECT_EQ(L"10.1.2.3", text);
    EXPECT_STREQ(L"255.255.255.255", Ipv4ToText(0xFFFFFFFF, text));
}

TEST(AddressText, Ipv6IsShortened)
{
    std::wstring text;
    const std::uint8_t bytes[16] = {0xFE, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    EXPECT_STREQ(L"fe80::1", Ipv6ToText(bytes, text));
    const std::uint8_t longest[16] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_STREQ(L"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", Ipv6ToText(longest, text));
}

TEST(AddressText, TextToIpv4IsStrict)
{
    std::uint32_t address = 0;
    EXPECT_TRUE(TextToIpv4(L"10.1.2.3", address, true));
    EXPECT_EQ(0x0302010AU, address);
    for (const wchar_t* text : {L"", L"10.1.2", L"10", L"0x0A.1.2.3", L"10.1.2.256", L"abc"})
    {
        EXPECT_FALSE(TextToIpv4(text, address, true)) << std::wstring(text).size();
        EXPECT_FALSE(TextToIpv4(text, address, false));
    }
    EXPECT_EQ(0x0302010AU, address) << "left alone by failures";
}

// --- Crash dumps ---

TEST(CrashText, DumpNameTellsProgramVersionAndTime)
{
    SYSTEMTIME time{};
    time.wYear = 2026;
    time.wMonth = 11;
    time.wDay = 14;
    time.wHour = 17;
    time.wMinute = 13;
    time.wSecond = 37;
    EXPECT_EQ(L"C:\\d\\Halcyd_1.2.3.4_2026_11_14_17_13_37.dmp",
              CrashText::DumpPath(L"C:\\d\\", L"Halcyd", L"1.2.3.4", time));
    EXPECT_EQ(L"C:\\d\\Halcyd__2026_11_14_17_13_37.dmp", CrashText::DumpPath(L"C:\\d\\", L"Halcyd", L"", time));
}

class CrashDumpTest : public testing::Test
{
protected:
    void SetUp() override
    {
        time.wYear = 2026;
        time.wMonth = 11;
        time.wDay = 14;
        time.wHour = 17;
        clock.SetLocalTime(time);
        folder = GetDataFolder();
        fs::create_directories(folder);
        dump = folder / L"UnitTestsNetUtilities__2026_11_14_17_00_00.dmp";
        fs::remove(dump);
    }
    void TearDown() override
    {
        std::error_code ignored;
        fs::remove(dump, ignored);
    }
    VirtualClock clock;
    SYSTEMTIME time{};
    fs::path folder;
    fs::path dump;
};

TEST_F(CrashDumpTest, FileThatCannotBeOpenedIsSilent)
{
    fs::create_directory(dump); // a folder of the dump's name
    EXPECT_EQ(0, WriteCrashDump(nullptr));
    EXPECT_TRUE(fs::is_directory(dump));
}

TEST_F(CrashDumpTest, DumpTypeIsReadAnewEachTime)
{
    RegistryKey key;
    ASSERT_EQ(0U, key.Open(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", KEY_ALL_ACCESS));
    EXPECT_EQ(MiniDumpNormal, GetDumpType());
    ASSERT_EQ(0U, key.WriteDword(L"DumpType", 2));
    EXPECT_EQ(MiniDumpWithFullMemory, GetDumpType());
    ASSERT_EQ(0U, key.DeleteValue(L"DumpType"));
    EXPECT_EQ(MiniDumpNormal, GetDumpType());
}

TEST_F(CrashDumpTest, GuardInstallsTheFilterThatWritesADumpAndLeavesItInPlace)
{
    const auto before = SetUnhandledExceptionFilter(nullptr);
    LPTOP_LEVEL_EXCEPTION_FILTER during = nullptr;
    {
        const CrashGuard guard;
        during = SetUnhandledExceptionFilter(nullptr);
        SetUnhandledExceptionFilter(during);
    }
    const auto after = SetUnhandledExceptionFilter(before);
    EXPECT_NE(nullptr, during);
    EXPECT_EQ(during, after) << "the guard's end must not take the filter away";
    // Null pointers are allowed: a dump without exception information.
    EXPECT_EQ(0, after(nullptr)) << "EXCEPTION_CONTINUE_SEARCH";
    std::ifstream file(dump, std::ios::binary);
    char signature[5] = {};
    file.read(signature, 4);
    EXPECT_STREQ("MDMP", signature);
}

TEST(RuntimeMessages, GoToTheErrorStreamInsteadOfADialogue)
{
    const int before = _set_error_mode(_OUT_TO_MSGBOX);
    KeepRuntimeFromAsking();
    EXPECT_EQ(_OUT_TO_STDERR, _set_error_mode(_REPORT_ERRMODE));
    _set_error_mode(before);
}

// The exception that the handler raises, caught before it gets to the filter.
DWORD raisedCode = 0;

LONG CALLBACK CatchRaised(EXCEPTION_POINTERS* pointers)
{
    if (pointers->ExceptionRecord->ExceptionCode == 0xE0000001)
    {
        raisedCode = pointers->ExceptionRecord->ExceptionCode;
        return EXCEPTION_CONTINUE_EXECUTION;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

class InvalidParameterTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        recorder.Reset();
        raisedCode = 0;
        handler = AddVectoredExceptionHandler(1, &CatchRaised);
    }
    void TearDown() override
    {
        RemoveVectoredExceptionHandler(handler);
        recorder.Reset();
    }
    VirtualClock clock;
    TraceRecorder& recorder = TraceRecorder::Get();
    void* handler = nullptr;
};

TEST_F(InvalidParameterTest, AllArgumentsGivenAreTracedAtLevelOne)
{
    InvalidParameterHandler(L"x != 0", L"strcpy_s", L"string.c", 42, 0);
    EXPECT_EQ(0xE0000001, raisedCode);
    EXPECT_EQ(250, clock.SleptMilliseconds());
    EXPECT_TRUE(recorder.Has(1, 1, L"Invalid parameter detected in function strcpy_s. File: string.c Line: 42"));
    EXPECT_TRUE(recorder.Has(1, 1, L"Expression: x != 0"));
}

TEST_F(InvalidParameterTest, AllNullGoesStraightToTheSleepAndTheException)
{
    InvalidParameterHandler(nullptr, nullptr, nullptr, 0, 0);
    EXPECT_EQ(0xE0000001, raisedCode);
    EXPECT_EQ(250, clock.SleptMilliseconds());
    EXPECT_TRUE(recorder.Messages().empty());
}

TEST_F(InvalidParameterTest, MissingLineOrFileLeavesTheFirstTextOut)
{
    InvalidParameterHandler(L"e", L"f", nullptr, 3, 0);
    InvalidParameterHandler(nullptr, L"f", L"g", 0, 0);
    EXPECT_EQ((std::vector<std::wstring>{L"Expression: e"}), recorder.Messages());
}
} // namespace
