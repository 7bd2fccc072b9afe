// The kernel driver: devices that follow the machine's state, object identifiers, failures, its journal.
#include "tests/unit/lab/LabMachineFixture.h"

#include "lab/driver/LabDriver.h"
#include "lab/state/DriverTable.h"
#include "lab/state/Handles.h"

#include <array>
#include <cstring>
#include <atomic>
#include <functional>
#include <thread>

namespace
{

constexpr wchar_t devicePath[] = L"\\\\.\\{11111111-AAAA-4BBB-8CCC-000000000001}";
constexpr wchar_t otherPath[] = L"\\\\.\\{11111111-AAAA-4BBB-8CCC-000000000002}";
constexpr DWORD queryGlobalStatistics = 0x170002;

lab::Json Adapter(const char* name, const char* guid)
{
    return {{"name", name},
            {"guid", guid},
            {"index", 7},
            {"mac", "02:00:5E:00:53:01"},
            {"present", true},
            {"media", "connected"},
            {"driver",
             {{"open", true},
              {"medium", 0},
              {"physicalMedium", 9},
              {"vendorId", "0x00ABCDEF"},
              {"vendorDescription", "Test card"},
              {"driverVersion", "0x0600"},
              {"linkSpeed", 1000000000}}}};
}

lab::Handle OpenDevice(const wchar_t* path)
{
    return lab::Handle{
        CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr)};
}

struct QueryResult
{
    DWORD error = 0;
    DWORD length = 0;
    std::array<unsigned char, 300> bytes{};

    [[nodiscard]] DWORD Number() const
    {
        DWORD value = 0;
        std::memcpy(&value, bytes.data(), sizeof value);
        return value;
    }
};

QueryResult Query(HANDLE device, DWORD oid, DWORD room = 4)
{
    QueryResult result;
    if (!DeviceIoControl(device, queryGlobalStatistics, &oid, sizeof oid, result.bytes.data(), room, &result.length,
                         nullptr))
        result.error = GetLastError();
    return result;
}

class LabDriverTest : public LabMachineTest
{
protected:
    void SetUp() override
    {
        LabMachineTest::SetUp();
        ASSERT_EQ(lab::InstallDriver(BuildFolder() / L"lab" / L"driver" / L"lab.sys"), 0U);
        ASSERT_EQ(lab::StartDriver(), 0U);
        // Named as an array: braces around one Json are an array to one compiler and a plain copy to the other.
        machine.Update(
            [](lab::Json& state, lab::Events&)
            { state["adapters"] = lab::Json::array({Adapter("eth0", "{11111111-AAAA-4BBB-8CCC-000000000001}")}); });
        machine.ClearJournal();
    }

    void Change(const std::function<void(lab::Json& adapter)>& change)
    {
        machine.Update([&](lab::Json& state, lab::Events&) { change(state["adapters"][0]); });
    }

    static DWORD OpenError(const wchar_t* path)
    {
        const lab::Handle device = OpenDevice(path);
        return device ? 0 : GetLastError();
    }
};

TEST_F(LabDriverTest, AnswersEveryIdentifierFromTheState)
{
    const lab::Handle device = OpenDevice(devicePath);
    ASSERT_TRUE(device);
    EXPECT_EQ(Query(device.get(), 0x00010103).Number(), 0U);
    EXPECT_EQ(Query(device.get(), 0x00010202).Number(), 9U);
    EXPECT_EQ(Query(device.get(), 0x00010107, 8).Number(), 10000000U);
    EXPECT_EQ(Query(device.get(), 0x00010107, 8).length, 4U);
    EXPECT_EQ(Query(device.get(), 0x0001010C).Number(), 0x00ABCDEFU);
    EXPECT_EQ(Query(device.get(), 0x00010114).Number(), 0U);
    EXPECT_EQ(Query(device.get(), 0x00010116).Number(), 0x0600U);
    const QueryResult text = Query(device.get(), 0x0001010D, 260);
    EXPECT_STREQ(reinterpret_cast<const char*>(text.bytes.data()), "Test card");
    EXPECT_EQ(text.length, 10U);
}

TEST_F(LabDriverTest, AnOpenHandleSeesChangedValuesAtOnce)
{
    const lab::Handle device = OpenDevice(devicePath);
    ASSERT_TRUE(device);
    EXPECT_EQ(Query(device.get(), 0x00010114).Number(), 0U);
    Change([](lab::Json& adapter) { adapter["media"] = "disconnected"; });
    EXPECT_EQ(Query(device.get(), 0x00010114).Number(), 1U);
}

TEST_F(LabDriverTest, UnknownIdentifierIsNotSupported)
{
    const lab::Handle device = OpenDevice(devicePath);
    EXPECT_EQ(Query(device.get(), 0x00FFFFFF).error, static_cast<DWORD>(ERROR_NOT_SUPPORTED));
}

TEST_F(LabDriverTest, ShortBufferGivesInsufficientBuffer)
{
    const lab::Handle device = OpenDevice(devicePath);
    EXPECT_EQ(Query(device.get(), 0x0001010D, 4).error, static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
}

TEST_F(LabDriverTest, OtherControlCodesAndShortInputAreRefused)
{
    const lab::Handle device = OpenDevice(devicePath);
    DWORD returned = 0;
    std::array<unsigned char, 4> room{};
    EXPECT_FALSE(DeviceIoControl(device.get(), 0x00222004, nullptr, 0, nullptr, 0, &returned, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_FUNCTION));
    EXPECT_FALSE(DeviceIoControl(device.get(), queryGlobalStatistics, nullptr, 0, room.data(), 4, &returned, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(LabDriverTest, DevicesAppearAndVanishWithTheStateAndAnUnopenableOneIsNotFound)
{
    EXPECT_EQ(OpenError(devicePath), 0U);
    EXPECT_EQ(OpenError(otherPath), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    machine.Update([](lab::Json& state, lab::Events&)
                   { state["adapters"].push_back(Adapter("eth1", "{11111111-AAAA-4BBB-8CCC-000000000002}")); });
    EXPECT_EQ(OpenError(otherPath), 0U);
    Change([](lab::Json& adapter) { adapter["driver"]["open"] = false; });
    EXPECT_EQ(OpenError(devicePath), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    Change([](lab::Json& adapter) { adapter["driver"]["open"] = true; });
    EXPECT_EQ(OpenError(devicePath), 0U);
    machine.Update([](lab::Json& state, lab::Events&) { state["adapters"].erase(0); });
    EXPECT_EQ(OpenError(devicePath), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(OpenError(otherPath), 0U);
}

TEST_F(LabDriverTest, AHandleToARemovedDeviceFailsAndDoesNotReachItsSuccessor)
{
    const lab::Handle device = OpenDevice(devicePath);
    ASSERT_TRUE(device);
    Change([](lab::Json& adapter) { adapter["present"] = false; });
    EXPECT_NE(Query(device.get(), 0x00010114).error, 0U);
    Change([](lab::Json& adapter) { adapter["present"] = true; });
    EXPECT_NE(Query(device.get(), 0x00010114).error, 0U);
    EXPECT_EQ(Query(OpenDevice(devicePath).get(), 0x00010114).error, 0U);
}

TEST_F(LabDriverTest, TheNthQueryFailsWithTheGivenStatusAndTheNextWorks)
{
    machine.AddFault({.call = "QueryOid:0x00010114", .nth = 2, .times = 1, .code = 0xC0000001});
    const lab::Handle device = OpenDevice(devicePath);
    EXPECT_EQ(Query(device.get(), 0x00010114).error, 0U);
    EXPECT_EQ(Query(device.get(), 0x0001010C).error, 0U);
    EXPECT_EQ(Query(device.get(), 0x00010114).error, static_cast<DWORD>(ERROR_GEN_FAILURE));
    EXPECT_EQ(Query(device.get(), 0x00010114).error, 0U);
    ASSERT_EQ(machine.Faults().size(), 1U);
    EXPECT_EQ(machine.Faults()[0].hits, 3U);
}

TEST_F(LabDriverTest, AFaultForAnotherAdapterDoesNotApply)
{
    machine.AddFault({.call = "QueryOid@{99999999-AAAA-4BBB-8CCC-000000000002}", .times = 0, .code = 0xC0000001});
    EXPECT_EQ(Query(OpenDevice(devicePath).get(), 0x00010114).error, 0U);
}

TEST_F(LabDriverTest, AnIdentifierCanHaveAStatusOfItsOwn)
{
    Change([](lab::Json& adapter) { adapter["driver"]["oids"]["0x0001010C"] = {{"status", "0xC0000022"}}; });
    EXPECT_EQ(Query(OpenDevice(devicePath).get(), 0x0001010C).error, static_cast<DWORD>(ERROR_ACCESS_DENIED));
}

TEST_F(LabDriverTest, ADelayedQueryHoldsUpNobodyElse)
{
    machine.AddFault({.call = "QueryOid:0x00010114", .nth = 1, .times = 1, .code = 0xC0000001, .delayMs = 2000});
    const lab::Handle slow = OpenDevice(devicePath);
    const lab::Handle quick = OpenDevice(devicePath);
    std::atomic<bool> finished{false};
    QueryResult delayed;
    std::jthread caller{[&]
                        {
                            delayed = Query(slow.get(), 0x00010114);
                            finished = true;
                        }};
    while (!finished && machine.Faults()[0].hits == 0)
        std::this_thread::yield();
    EXPECT_EQ(Query(quick.get(), 0x00010107).error, 0U);
    EXPECT_FALSE(finished);
    caller.join();
    EXPECT_EQ(delayed.error, static_cast<DWORD>(ERROR_GEN_FAILURE));
}

TEST_F(LabDriverTest, JournalsOpenQueryAndCloseWithCaller)
{
    {
        const lab::Handle device = OpenDevice(devicePath);
        EXPECT_EQ(Query(device.get(), 0x00FFFFFF).error, static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    }
    // The close reaches the driver after CloseHandle has returned.
    while (Journalled("Driver::Close").empty())
        std::this_thread::yield();
    lab::JournalPosition position;
    const auto lines = machine.ReadJournal(position);
    ASSERT_EQ(lines.size(), 3U) << lab::Json(lines).dump(1);
    EXPECT_EQ(lines[0].value("call", ""), "Driver::Open");
    EXPECT_EQ(lines[1].value("call", ""), "Driver::DeviceControl");
    EXPECT_EQ(lines[1]["args"].value("oid", ""), "0x00FFFFFF");
    EXPECT_EQ(lines[1].value("result", ""), "0xC00000BB");
    EXPECT_EQ(lines[2].value("call", ""), "Driver::Close");
    EXPECT_EQ(lines[1].value("pid", 0U), GetCurrentProcessId());
    EXPECT_EQ(lines[1].value("tid", 0U), GetCurrentThreadId());
}

TEST_F(LabDriverTest, StoppingTakesAllDevicesAwayAndStartingBringsThemBack)
{
    ASSERT_EQ(lab::StopDriver(), 0U);
    EXPECT_FALSE(lab::IsDriverRunning());
    EXPECT_EQ(OpenError(devicePath), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    ASSERT_EQ(lab::StartDriver(), 0U);
    EXPECT_EQ(OpenError(devicePath), 0U);
}

} // namespace
