// Every WMI, driver, ARP and other platform call that the shipped service makes while it handles one notification fails
// once: the client is told, or not, as is due; the next notification is handled as ever; and the monitor goes on.
//
// Notifications are raised by themselves here, with the machine as it is, so that one of them is one run of the
// handler. Behind each comes one about another adapter: it is handled by the same thread, so when the client hears of
// it the disturbed one has been dealt with.

#include <gtest/gtest.h>

#include <windows.h>

#include <cfgmgr32.h>

#include <algorithm>
#include <functional>
#include <iostream>
#include <memory>
#include <vector>

#include "Lab/ServiceCalls.h"
#include "Monitor/MonitorMachine.h"
#include "tests/support/RunningService.h"
#include "lab/state/Changes.h"
#include "lab/state/Model.h"

namespace
{
enum class Effect
{
    Told,     // as ever
    Nameless, // told, without the adapter's id
    Lost,     // not told
};

std::ostream& operator<<(std::ostream& out, Effect effect)
{
    return out << (effect == Effect::Told ? "told" : effect == Effect::Lost ? "lost" : "told without an id");
}

// Notifications, one bit each, for the table below.
enum Kind : unsigned
{
    Disconnect = 1,
    Connect = 2,
    WiFiConnect = 4,
    Arrival = 8, // of an adapter that the list does not have
    Removal = 16,
    AddressChange = 32,
    Media = Disconnect | Connect | WiFiConnect,
    Every = Media | Arrival | Removal | AddressChange,
};

struct Row
{
    const char* call;
    unsigned kinds;
    const char* mentioning; // in the arguments; "" for any
    int alike;              // which of the calls with the same arguments; 0 for any
    std::uint32_t code;
    Effect effect;
};

constexpr std::uint32_t Failed = 0x80041001; // WBEM_E_FAILED
constexpr unsigned ById = Arrival | Removal; // these events carry the adapter's id, the others its name

// The first row that fits counts.
constexpr Row rows[] = {
    // What the event says. Without its class nothing is done. A name is searched for when there is no id.
    {"IWbemClassObject::GetObjectText", Every, "", 0, Failed, Effect::Told},
    {"IWbemClassObject::Get", Every, "__CLASS", 0, Failed, Effect::Lost},
    {"IWbemClassObject::Get", Every, "DeviceName", 0, Failed, Effect::Told},
    {"IWbemClassObject::Get", Media, "InstanceName", 0, Failed, Effect::Lost},
    {"IWbemClassObject::Get", ById, "InstanceName", 0, Failed, Effect::Told},
    // The adapter's configuration object. By its id there is one query; by its name the captions are searched when the
    // descriptions gave nothing.
    {"SysAllocString", ById, "WHERE SettingID", 0, ERROR_OUTOFMEMORY, Effect::Lost},
    {"SysAllocString", ById, "\"WQL\"", 1, ERROR_OUTOFMEMORY, Effect::Lost},
    {"IWbemServices::ExecQuery", ById, "WHERE SettingID", 0, Failed, Effect::Lost},
    {"IWbemServices::ExecQuery", Every, "", 0, Failed, Effect::Told},
    {"IEnumWbemClassObject::Next", ById, "", 1, Failed, Effect::Lost},
    {"IEnumWbemClassObject::Next", Every, "", 0, Failed, Effect::Told},
    // Is it an adapter to care about? One that the list has is acted on whatever the answer is; an unknown one is not
    // taken in.
    {"IWbemClassObject::Get", Arrival, "ServiceName", 2, Failed, Effect::Lost},
    {"IWbemClassObject::Get", Arrival, "SettingID", 2, Failed, Effect::Lost},
    {"RegOpenKeyExW", Arrival, "Control\\\\Class", 0, ERROR_ACCESS_DENIED, Effect::Lost},
    {"RegOpenKeyExW", Arrival, "\"0013\"", 0, ERROR_ACCESS_DENIED, Effect::Lost},
    {"RegEnumKeyExW", Arrival, "\"2\":1", 0, ERROR_ACCESS_DENIED, Effect::Lost},
    {"RegQueryValueExW", Arrival, "Characteristics", 0, ERROR_FILE_NOT_FOUND, Effect::Lost},
    {"RegQueryValueExW", Arrival, "NetCfgInstanceId", 3, ERROR_FILE_NOT_FOUND, Effect::Lost},
    {"RegQueryValueExW", Arrival, "NetCfgInstanceId", 4, ERROR_FILE_NOT_FOUND, Effect::Lost},
    {"RegOpenKeyExW", Every, "", 0, ERROR_ACCESS_DENIED, Effect::Told},
    {"RegQueryInfoKeyW", Every, "", 0, ERROR_ACCESS_DENIED, Effect::Told}, // the next index asks again
    {"RegEnumKeyExW", Every, "", 0, ERROR_ACCESS_DENIED, Effect::Told},
    {"RegQueryValueExW", Every, "", 0, ERROR_FILE_NOT_FOUND, Effect::Told},
    // A new element, and its id, which the event carries.
    {"CoTaskMemAlloc", Arrival, "136", 1, ERROR_OUTOFMEMORY, Effect::Lost},
    {"CoTaskMemAlloc", Every, "", 0, ERROR_OUTOFMEMORY, Effect::Told},
    {"IWbemClassObject::Get", Arrival, "SettingID", 3, Failed, Effect::Nameless},
    {"SysAllocString", Every, "\"{4A1C7E0", 0, ERROR_OUTOFMEMORY, Effect::Nameless},
    {"SysAllocString", AddressChange, "no node", 0, ERROR_OUTOFMEMORY, Effect::Nameless},
    // A wired connect waits for a gateway on a thread of the pool, with a copy of the object.
    {"IWbemClassObject::Clone", Connect, "", 0, 0x80041006, Effect::Lost},
    {"CreateEventW", Connect, "\"2\":0", 0, ERROR_NOT_ENOUGH_MEMORY, Effect::Told}, // its start makes that one again
    {"CreateEventW", Connect, "", 0, ERROR_NOT_ENOUGH_MEMORY, Effect::Lost},
    {"_beginthreadex", Connect, "", 0, ERROR_NOT_ENOUGH_MEMORY, Effect::Lost},
    {"CoInitializeEx", Connect, "", 0, 0x80010106, Effect::Told},
    // The way to the client's sink.
    {"IGlobalInterfaceTable::GetInterfaceFromGlobal", Every, "", 0, 0x80070057, Effect::Lost},
    // What an update of the element does without.
    {"IWbemClassObject::Get", Every, "", 0, Failed, Effect::Told},
    {"SysAllocString", Every, "", 0, ERROR_OUTOFMEMORY, Effect::Told},
    {"SafeArrayAccessData", Every, "", 0, 0x8002000D, Effect::Told},
    {"SendARP", Every, "", 0, ERROR_GEN_FAILURE, Effect::Told},
    {"CreateFileW", Every, "", 0, ERROR_FILE_NOT_FOUND, Effect::Told},
    {"DeviceIoControl", Every, "", 0, ERROR_NOT_SUPPORTED, Effect::Told},
    {"CreateTimerQueueTimer", Every, "", 0, ERROR_NOT_ENOUGH_MEMORY, Effect::Told},
    // The search for the client's process, now and then.
    {"CreateToolhelp32Snapshot", Every, "", 0, ERROR_NOT_ENOUGH_MEMORY, Effect::Told},
    {"Process32FirstW", Every, "", 0, ERROR_NO_MORE_FILES, Effect::Told},
    {"Process32NextW", Every, "", 0, ERROR_NO_MORE_FILES, Effect::Told},
    {"CM_Locate_DevNodeW", Arrival, "", 0, CR_NO_SUCH_DEVNODE, Effect::Told},
    {"CM_Get_Parent", Arrival, "", 0, CR_FAILURE, Effect::Told},
    {"CM_Get_Child", Arrival, "", 0, CR_FAILURE, Effect::Told},
    {"CM_Get_Sibling", Arrival, "", 0, CR_FAILURE, Effect::Told},
    {"CM_Get_Device_IDW", Arrival, "", 0, CR_FAILURE, Effect::Told},
    {"CM_Get_DevNode_Status", Arrival, "", 0, CR_FAILURE, Effect::Told},
    {"SetupDiCreateDeviceInfoList", Arrival, "", 0, ERROR_NOT_ENOUGH_MEMORY, Effect::Told},
    {"SetupDiOpenDeviceInfoW", Arrival, "", 0, ERROR_INVALID_DATA, Effect::Told},
    {"SetupDiOpenDevRegKey", Arrival, "", 0, ERROR_ACCESS_DENIED, Effect::Told},
    {"SetupDiGetDeviceRegistryPropertyW", Arrival, "", 0, ERROR_INVALID_DATA, Effect::Told},
    {"SetupDiDestroyDeviceInfoList", Arrival, "", 0, ERROR_INVALID_HANDLE, Effect::Told},
};

struct Notification
{
    Kind kind;
    const char* adapter;    // as the lab names it
    const wchar_t* id;      // that the client is told
    const char* eventClass; // "" for a change of address
    std::int32_t told;      // _NOTIFICATION_EVENT
    const char* undo;       // class of the notification that leads back; "" when the monitor is opened anew
    std::int32_t undoTold;
    const char* marker; // another adapter
    const wchar_t* markerId;
};

constexpr wchar_t Dock[] = L"{4A1C7E0D-3B52-4D0F-9E61-0C5D8A2B700D}";

const Notification notifications[] = {
    {Disconnect, "dock0", Dock, "MSNdis_StatusMediaDisconnect", enumEventMediaDisconnect, "MSNdis_StatusMediaConnect",
     enumEventMediaConnect, "wlan0", kWiFi},
    {Connect, "dock0", Dock, "MSNdis_StatusMediaConnect", enumEventMediaConnect, "MSNdis_StatusMediaDisconnect",
     enumEventMediaDisconnect, "wlan0", kWiFi},
    {WiFiConnect, "wlan0", kWiFi, "MSNdis_StatusMediaConnect", enumEventMediaConnect, "MSNdis_StatusMediaDisconnect",
     enumEventMediaDisconnect, "dock0", Dock},
    {Arrival, "dock0", Dock, "MSNdis_NotifyAdapterArrival", enumEventAdapterAdd, "", 0, "wlan0", kWiFi},
    {Removal, "dock0", Dock, "MSNdis_NotifyAdapterRemoval", enumEventAdapterRemove, "", 0, "wlan0", kWiFi},
    {AddressChange, "dock0", L"no node", "", enumEventIpChange, "", 0, "wlan0", kWiFi},
};

class Fast10_LiveFaultSweep : public MonitorTest
{
protected:
    void SetUp() override
    {
        MonitorTest::SetUp();
        Lab(L"load tablet");
        ASSERT_NO_FATAL_FAILURE(RestartWithHooks(service));
        monitor = OpenMonitor();
        ASSERT_NE(monitor, nullptr);
        sink = std::make_unique<EventConnection>(monitor);
        ASSERT_EQ(sink->Result(), S_OK);
        usual = ReadAdapterList(monitor);
        ASSERT_EQ(usual.size(), 2u);
    }
    void TearDown() override
    {
        sink.reset();
        if (monitor != nullptr)
        {
            EXPECT_EQ(monitor->Close(), S_OK);
        }
    }

    static lab::Json Event(const char* adapter, const char* eventClass)
    {
        lab::Json state = *lab::Machine::Attach().Snapshot();
        lab::Json& entry = lab::RequireAdapter(state, adapter);
        if (*eventClass != '\0')
        {
            return lab::NdisEvent(entry, eventClass);
        }
        return {{"channel", "address"}, {"type", "add"},           {"guid", entry["guid"]},
                {"interfaceIndex", 17}, {"address", "192.0.2.77"}, {"prefix", 24}};
    }

    std::optional<RecordedEvent> WaitFor(std::int32_t event, const wchar_t* id)
    {
        return sink->Recorder().WaitFor([&](const RecordedEvent& told)
                                        { return told.event == event && told.deviceId == id; }, 60'000);
    }

    // An event about anybody but `exceptId`.
    bool WaitForOtherThan(std::int32_t event, const wchar_t* exceptId)
    {
        return sink->Recorder()
            .WaitFor([&](const RecordedEvent& told) { return told.event == event && told.deviceId != exceptId; },
                     60'000)
            .has_value();
    }

    static bool WaitUntilHit(const ArmedFault& fault)
    {
        const ULONGLONG limit = GetTickCount64() + 600'000;
        while (!fault.Hit() && GetTickCount64() < limit)
        {
            Sleep(1); // a rule wakes nobody
        }
        return fault.Hit();
    }

    // What has been told of `event`, about anybody but `exceptId`.
    Effect ToldSoFar(std::int32_t event, const wchar_t* id, const wchar_t* exceptId)
    {
        Effect effect = Effect::Lost;
        for (const RecordedEvent& told : sink->Recorder().Events())
        {
            if (told.event == event && told.deviceId == id)
            {
                return Effect::Told;
            }
            if (told.event == event && told.deviceId != exceptId)
            {
                effect = Effect::Nameless;
            }
        }
        return effect;
    }

    void Undisturbed(const char* adapter, const char* eventClass, std::int32_t event, const wchar_t* id)
    {
        sink->Recorder().Clear();
        lab::Machine::Attach().Raise({Event(adapter, eventClass)});
        ASSERT_TRUE(WaitFor(event, id).has_value()) << eventClass << " of " << adapter;
    }

    void Reopen()
    {
        EXPECT_EQ(monitor->Close(), S_OK);
        EXPECT_EQ(monitor->Open(), S_OK);
        EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
        EXPECT_EQ(ReadAdapterList(monitor), usual);
    }

    // With a closed monitor, since the timers of an open one keep the pools at work. Afterwards it is open again.
    Holdings HoldingsWhenClosed(DWORD processId)
    {
        EXPECT_EQ(monitor->Close(), S_OK);
        const Holdings held = HoldingsAtRest(processId);
        EXPECT_EQ(monitor->Open(), S_OK);
        EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
        return held;
    }

    // Brings about what the notification changes: an adapter that is to arrive has left.
    void Prepare(const Notification& what)
    {
        if (what.kind == Connect)
        {
            Reopen(); // so that the pool has to start a thread
        }
        if (what.kind == Arrival)
        {
            Undisturbed(what.adapter, "MSNdis_NotifyAdapterRemoval", enumEventAdapterRemove, what.id);
        }
        else if (*what.undo != '\0')
        {
            Undisturbed(what.adapter, what.undo, what.undoTold, what.id);
        }
    }

    void Restore(const Notification& what)
    {
        if (*what.undo == '\0')
        {
            Reopen();
        }
    }

    std::vector<ServiceCall> Recorded(const Notification& what)
    {
        Prepare(what);
        CallRecorder recorder;
        Undisturbed(what.adapter, what.eventClass, what.told, what.id);
        std::vector<ServiceCall> calls = recorder.Calls();
        Restore(what);
        return calls;
    }

    void Fail(const Notification& what, const ServiceCall& call, const Row& row)
    {
        SCOPED_TRACE(testing::Message() << call);
        Prepare(what);
        {
            const ArmedFault fault(call.name, call.nth, row.code);
            sink->Recorder().Clear();
            lab::Machine::Attach().Raise({Event(what.adapter, what.eventClass)});
            if (row.effect == Effect::Lost)
            {
                ASSERT_TRUE(WaitUntilHit(fault)) << "the call was not made";
            }
            else
            {
                ASSERT_TRUE(WaitForOtherThan(what.told, what.markerId)) << "not told";
            }
            // Only now, so that its own calls are not counted with those of a notification on another thread.
            lab::Machine::Attach().Raise({Event(what.marker, "MSNdis_StatusMediaDisconnect")});
            ASSERT_TRUE(WaitFor(enumEventMediaDisconnect, what.markerId).has_value()) << "the next one was not handled";
            EXPECT_EQ(ToldSoFar(what.told, what.id, what.markerId), row.effect);
            EXPECT_TRUE(fault.Hit()) << "the call was not made";
        }
        Restore(what);
    }

    void Sweep(const Notification& what)
    {
        const std::vector<ServiceCall> calls = Recorded(what);
        ASSERT_FALSE(calls.empty());
        const DWORD processId = service.ProcessId();
        const Holdings before = HoldingsWhenClosed(processId);
        DWORD kept = 0;
        for (const ServiceCall& call : calls)
        {
            const auto* const row = std::find_if(std::begin(rows), std::end(rows),
                                                 [&](const Row& each)
                                                 {
                                                     return call.name == each.call && (each.kinds & what.kind) != 0 &&
                                                            call.Mentions(each.mentioning) &&
                                                            (each.alike == 0 || each.alike == call.alike);
                                                 });
            if (row == std::end(rows))
            {
                ADD_FAILURE() << "the table does not say what becomes of the notification when this fails: " << call;
                continue;
            }
            Fail(what, call, *row);
            kept += call.name == "SetupDiDestroyDeviceInfoList" ? 1u : 0u; // a set that stays holds a key
            if (HasFatalFailure())
            {
                break;
            }
        }
        std::cout << calls.size() << " calls failed in turn\n";
        ASSERT_EQ(service.ProcessId(), processId);
        EXPECT_EQ(monitor->Close(), S_OK);
        ExpectNoMoreHeld(processId, before, kept);
        EXPECT_EQ(monitor->Open(), S_OK);
        EXPECT_EQ(ReadAdapterList(monitor), usual);
    }

    INetMonSvPtr monitor;
    std::unique_ptr<EventConnection> sink;
    std::vector<AdapterRecord> usual;
};

TEST_F(Fast10_LiveFaultSweep, EachCallOfADisconnect)
{
    Sweep(notifications[0]);
}

TEST_F(Fast10_LiveFaultSweep, EachCallOfAWiredConnect)
{
    Sweep(notifications[1]);
}

TEST_F(Fast10_LiveFaultSweep, EachCallOfAWiFiConnect)
{
    Sweep(notifications[2]);
}

TEST_F(Fast10_LiveFaultSweep, EachCallOfAnArrival)
{
    Sweep(notifications[3]);
}

TEST_F(Fast10_LiveFaultSweep, EachCallOfARemoval)
{
    Sweep(notifications[4]);
}

TEST_F(Fast10_LiveFaultSweep, EachCallOfAChangeOfAddress)
{
    Sweep(notifications[5]);
}
} // namespace
