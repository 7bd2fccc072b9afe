#include "bench/PathReplay.h"

#include <winioctl.h>

#include "bench/Measure.h"

namespace
{

constexpr DWORD kQueryGlobalStats = 0x00170002; // IOCTL_NDIS_QUERY_GLOBAL_STATS

_bstr_t ArgumentOf(const lab::Json& line, const char* name)
{
    const auto arguments = line.find("args");
    const std::string text = arguments != line.end() ? arguments->value(name, "") : "";
    return std::wstring(text.begin(), text.end()).c_str(); // names of this machine, all ASCII
}

} // namespace

PathReplay::PathReplay(const std::vector<lab::Json>& journal)
{
    IWbemLocator* locator = nullptr;
    _com_util::CheckError(CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                           reinterpret_cast<void**>(&locator)));
    const HRESULT connected =
        locator->ConnectServer(_bstr_t(L"root\\cimv2"), nullptr, nullptr, nullptr, 0, nullptr, nullptr, &m_services);
    locator->Release();
    _com_util::CheckError(connected);
    for (const lab::Json& line : journal)
    {
        const std::string call = line.value("call", "");
        if (call == "IWbemServices::ExecQuery")
            m_steps.push_back({Call::Query, ArgumentOf(line, "query")});
        else if (call == "IEnumWbemClassObject::Next")
            m_steps.push_back({Call::Next, {}});
        else if (call == "IWbemClassObject::Get")
            m_steps.push_back({Call::Get, ArgumentOf(line, "name")});
        else if (call == "IWbemClassObject::GetObjectText")
            m_steps.push_back({Call::Text, {}});
        else if (call == "Driver::Open")
            m_steps.push_back({Call::OpenDevice, _bstr_t(L"\\\\.\\") + ArgumentOf(line, "device")});
        else if (call == "Driver::Close")
            m_steps.push_back({Call::CloseDevice, {}});
        else if (call == "Driver::DeviceControl")
            m_steps.push_back(
                {Call::AskDevice, {}, static_cast<ULONG>(std::wcstoul(ArgumentOf(line, "oid"), nullptr, 16))});
    }
    // The path's first questions go to the event, before any query: an object for them.
    Do({Call::Query, L"SELECT * FROM Win32_NetworkAdapterConfiguration"});
    Do({Call::Next, {}});
}

std::int64_t PathReplay::Run()
{
    const std::int64_t start = NowNanoseconds();
    for (const Step& step : m_steps)
        Do(step);
    return NowNanoseconds() - start;
}

void PathReplay::Do(const Step& step)
{
    switch (step.call)
    {
    case Call::Query:
        m_list = nullptr;
        m_services->ExecQuery(_bstr_t(L"WQL"), step.text, WBEM_FLAG_FORWARD_ONLY, nullptr, &m_list);
        break;
    case Call::Next:
    {
        ULONG returned = 0;
        IWbemClassObjectPtr next;
        if (m_list != nullptr && m_list->Next(static_cast<LONG>(WBEM_INFINITE), 1, &next, &returned) == S_OK)
            m_object = next;
        break;
    }
    case Call::Get:
    {
        _variant_t value;
        m_object->Get(step.text, 0, &value, nullptr, nullptr);
        break;
    }
    case Call::Text:
    {
        BSTR text = nullptr;
        m_object->GetObjectText(0, &text);
        SysFreeString(text);
        break;
    }
    case Call::OpenDevice:
        m_device = CreateFileW(step.text, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0,
                               nullptr);
        break;
    case Call::CloseDevice:
        if (m_device != INVALID_HANDLE_VALUE)
            CloseHandle(m_device);
        m_device = INVALID_HANDLE_VALUE;
        break;
    case Call::AskDevice:
    {
        ULONG oid = step.oid;
        BYTE answer[256];
        DWORD length = 0;
        DeviceIoControl(m_device, kQueryGlobalStats, &oid, sizeof oid, answer, sizeof answer, &length, nullptr);
        break;
    }
    }
}
