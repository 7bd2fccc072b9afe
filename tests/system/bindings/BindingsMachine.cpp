#include "bindings/BindingsMachine.h"

#include <chrono>
#include <cstring>
#include <vector>

#include "Monitor/MonitorMachine.h"
#include "lab/netcfg/Model.h"
#include "lab/netcfg/WriteLock.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"
#include "tests/support/RegistryExport.h"

namespace
{
using lab::Json;

constexpr wchar_t kRecordValue[] = L"BindingDisabledByQRL";
constexpr auto kPatience = std::chrono::seconds(60);

bool IsBinding(const std::wstring& key)
{
    return key.find(L"\\{") != std::wstring::npos;
}

std::vector<unsigned char> FromHex(const std::string& text)
{
    std::vector<unsigned char> bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    {
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

INetMonSvPtr Unmarshal(const std::string& reference)
{
    const std::vector<unsigned char> bytes = FromHex(reference);
    const HGLOBAL memory = GlobalAlloc(GMEM_MOVEABLE, bytes.size());
    std::memcpy(GlobalLock(memory), bytes.data(), bytes.size());
    GlobalUnlock(memory);
    IStream* stream = nullptr;
    if (FAILED(CreateStreamOnHGlobal(memory, TRUE, &stream)))
    {
        return {};
    }
    IUnknown* object = nullptr;
    const HRESULT result = CoUnmarshalInterface(stream, IID_IUnknown, reinterpret_cast<void**>(&object));
    stream->Release();
    EXPECT_EQ(result, S_OK);
    INetMonSvPtr monitor = object;
    if (object != nullptr)
    {
        object->Release();
    }
    return monitor;
}
} // namespace

void BindingsMachine::Load()
{
    Lab(L"load laptop");
    const std::string tunnel = lab::Utf8(kTunnel);
    const std::string card = lab::Utf8(kCard);
    SetNetCfg({{"components",
                {{{"id", "lab_tunnel"}, {"displayName", "Tunnel adapter"}, {"guid", tunnel}},
                 {{"id", "lab_card"}, {"displayName", "Network card"}, {"guid", card}}}},
               {"paths",
                {{{"protocol", "ms_tcpip6"}, {"lower", {"lab_card"}}},
                 {{"protocol", "ms_tcpip"}, {"lower", {"lab_tunnel"}}},
                 {{"protocol", "ms_tcpip"}, {"lower", {"lab_card"}}}}}});
    RemoveRecord();
}

void BindingsMachine::SetNetCfg(const Json& netcfg)
{
    lab::Machine::Attach().Update([&](Json& state, lab::Events&) { state["netcfg"] = netcfg; });
}

std::set<std::string> BindingsMachine::PathsOff()
{
    std::set<std::string> off;
    for (const lab::netcfg::Path& path : lab::netcfg::ReadModel(*lab::Machine::Attach().Snapshot()).paths)
    {
        if (!path.enabled)
        {
            off.insert(path.token);
        }
    }
    return off;
}

void BindingsMachine::AllPathsOn()
{
    lab::Machine::Attach().Update([](Json& state, lab::Events&) { state["netcfg"]["disabled"] = Json::array(); });
}

BindingsMachine::Record BindingsMachine::ReadRecord()
{
    Record record;
    for (const auto& [key, values] : ExportRegistry(HKEY_LOCAL_MACHINE, kRecordRoot))
    {
        const auto value = values.find(kRecordValue);
        if (key.empty())
        {
            continue;
        }
        auto& entry = record[lab::Utf8(key)];
        if (value != values.end() && value->second.bytes.size() == sizeof(DWORD))
        {
            DWORD number = 0;
            std::memcpy(&number, value->second.bytes.data(), sizeof number);
            entry = number;
        }
    }
    return record;
}

void BindingsMachine::RemoveRecord()
{
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, kRecordRoot);
}

void BindingsMachine::CompleteRecord()
{
    const DWORD one = 1;
    for (const auto& entry : ExportRegistry(HKEY_LOCAL_MACHINE, kRecordRoot))
    {
        if (IsBinding(entry.first))
        {
            EXPECT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, (std::wstring(kRecordRoot) + L"\\" + entry.first).c_str(),
                                      kRecordValue, REG_DWORD, &one, sizeof one),
                      0);
        }
    }
}

std::optional<std::wstring> BindingsMachine::LockHolder()
{
    return lab::netcfg::WriteLock::Holder();
}

INetMonSvPtr BindingsMachine::LivingMonitor()
{
    lab::Machine& machine = lab::Machine::Attach();
    lab::EventCursor cursor = machine.Listen();
    LARGE_INTEGER now;
    QueryPerformanceCounter(&now);
    const auto request = static_cast<std::uint64_t>(now.QuadPart);
    wchar_t classId[40];
    StringFromGUID2(CLSID_NetMonSv, classId, 40);
    machine.Raise({{{"channel", "control"}, {"type", "reference"}, {"id", request}, {"class", lab::Utf8(classId)}}});
    const ULONGLONG end = GetTickCount64() + 60'000;
    while (GetTickCount64() < end)
    {
        for (const Json& event : cursor.Next(1000))
        {
            if (lab::TextField(event, "type") == "done" && event.value("id", 0ULL) == request)
            {
                EXPECT_EQ(lab::NumberField(event, "result", 1), 0);
                return Unmarshal(lab::TextField(event, "reference"));
            }
        }
    }
    ADD_FAILURE() << "the service does not answer the lab";
    return {};
}

bool BindingsMachine::BeginStart(const ServiceControl& service)
{
    // The manager needs a moment to notice that a process has died.
    const ULONGLONG end = GetTickCount64() + 60'000;
    DWORD error = service.Start();
    while (error == ERROR_SERVICE_ALREADY_RUNNING && GetTickCount64() < end)
    {
        Sleep(5);
        error = service.Start();
    }
    EXPECT_EQ(error, 0U);
    return error == 0;
}

bool BindingsMachine::StartService(const ServiceControl& service)
{
    return BeginStart(service) && service.WaitForState(SERVICE_RUNNING);
}

std::future<HRESULT> BindingsMachine::Disable(INetMonSvPtr monitor, std::wstring kept, long ppp)
{
    return std::async(std::launch::async,
                      [monitor, kept = std::move(kept), ppp]
                      {
                          const ComApartment thread;
                          return monitor->DisableIpBindings(_bstr_t(kept.c_str()), ppp);
                      });
}

std::future<HRESULT> BindingsMachine::Restore(INetMonSvPtr monitor)
{
    return std::async(std::launch::async,
                      [monitor]
                      {
                          const ComApartment thread;
                          return monitor->RestoreIpBindings();
                      });
}

bool BindingsMachine::Comes(std::future<HRESULT>& call)
{
    return call.wait_for(kPatience) == std::future_status::ready;
}

UniqueHandle BindingsMachine::HoldLock(const std::wstring& options, DWORD* processId)
{
    UniqueHandle holder =
        StartProcess(std::wstring(kLabControl) + L"lock netcfg \"Other program\" " + options, processId);
    while (LockHolder() != L"Other program" && WaitForSingleObject(holder.get(), 2) == WAIT_TIMEOUT)
    {
    }
    return holder;
}

void BindingsMachine::BindingsServiceTest::SetUp()
{
    Load();
    ASSERT_NO_FATAL_FAILURE(RunningServiceTest::SetUp());
    Connect();
}

void BindingsMachine::BindingsServiceTest::Connect()
{
    Activate(CLSID_NetMonSv, monitor);
}
