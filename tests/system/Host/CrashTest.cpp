// What a crash of the shipped executable leaves behind. The process is made to crash from outside, by a thread that
// starts at an address where nothing is. Each test throws its Windows away: the service manager may never learn of the
// end.

#include <windows.h>
#include <dbghelp.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "Host/HostSupport.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Handles.h"
#include "tests/support/ComPointers.h"

using namespace HostSupport;

namespace
{
const std::filesystem::path DumpFolder(L"C:\\ProgramData\\QRLS\\Sorvane");

std::vector<std::filesystem::path> Dumps()
{
    std::vector<std::filesystem::path> dumps;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(DumpFolder, error))
    {
        if (entry.path().extension() == L".dmp")
        {
            dumps.push_back(entry.path());
        }
    }
    return dumps;
}

// True once the process has ended.
bool Crash(DWORD processId)
{
    constexpr std::uintptr_t nowhere = 0x10;
    constexpr DWORD limit = 60'000;
    const UniqueHandle process(OpenProcess(PROCESS_ALL_ACCESS, FALSE, processId));
    const UniqueHandle thread(CreateRemoteThread(
        process.get(), nullptr, 0, reinterpret_cast<LPTHREAD_START_ROUTINE>(nowhere), nullptr, 0, nullptr));
    return thread && WaitForSingleObject(process.get(), limit) == WAIT_OBJECT_0;
}

MINIDUMP_HEADER HeaderOf(const std::filesystem::path& dump)
{
    MINIDUMP_HEADER header{};
    std::ifstream file(dump, std::ios::binary);
    file.read(reinterpret_cast<char*>(&header), sizeof(header));
    return header;
}

TEST(ServiceCrash, LeavesADumpNamedForProgramVersionAndTime)
{
    ASSERT_TRUE(ServiceControl().StartAndWait());
    ASSERT_TRUE(Dumps().empty());
    ASSERT_TRUE(Crash(ServiceControl().ProcessId()));
    const auto dumps = Dumps();
    ASSERT_EQ(dumps.size(), 1u);
    // No client is installed here: its version is empty and two underscores meet.
    const std::wregex name(L"Halcyd__[0-9]{4}_[0-9]{2}_[0-9]{2}_[0-9]{2}_[0-9]{2}_[0-9]{2}\\.dmp");
    EXPECT_TRUE(std::regex_match(dumps[0].filename().wstring(), name)) << dumps[0];
    const MINIDUMP_HEADER header = HeaderOf(dumps[0]);
    EXPECT_EQ(header.Signature, 0x504D444Du) << "MDMP";
    EXPECT_EQ(header.Flags, static_cast<ULONG64>(MiniDumpNormal));
}

TEST(ServiceCrash, TypeOfTheDumpIsReadWhenItHappens)
{
    ASSERT_TRUE(ServiceControl().StartAndWait());
    // Any mask shows it; the one for all memory would take a minute to write.
    const DWORD type = MiniDumpWithHandleData;
    ASSERT_EQ(
        RegSetKeyValueW(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", L"DumpType", REG_DWORD, &type, sizeof(type)),
        ERROR_SUCCESS);
    ASSERT_TRUE(Crash(ServiceControl().ProcessId()));
    const auto dumps = Dumps();
    ASSERT_EQ(dumps.size(), 1u);
    EXPECT_EQ(HeaderOf(dumps[0]).Flags, static_cast<ULONG64>(MiniDumpWithHandleData));
}

TEST(PlainServerCrash, LeavesNoDump)
{
    const ComApartment apartment;
    BecomePlainServer();
    HRESULT result = E_FAIL;
    const INetRegistryPtr object = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry, &result);
    ASSERT_EQ(result, S_OK);
    const std::vector<DWORD> processes = FindProcesses(L"Halcyd.exe");
    ASSERT_EQ(processes.size(), 1u);
    ASSERT_TRUE(Crash(processes[0]));
    EXPECT_TRUE(Dumps().empty());
}
} // namespace
