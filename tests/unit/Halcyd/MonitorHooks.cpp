#include "tests/unit/Halcyd/MonitorHooks.h"

#include <iphlpapi.h>
#include <winioctl.h>
#include <ntddndis.h>

#include <algorithm>
#include <cstring>

MiniportScope* MiniportScope::current = nullptr;

void FakeMiniport::Set(std::uint32_t oid, std::uint32_t value)
{
    std::vector<std::uint8_t> bytes(sizeof value);
    std::memcpy(bytes.data(), &value, sizeof value);
    answers[oid] = bytes;
}

void FakeMiniport::Set(std::uint32_t oid, const std::string& text)
{
    answers[oid].assign(text.begin(), text.end());
    answers[oid].push_back(0);
}

MiniportScope::MiniportScope()
{
    current = this;
}

MiniportScope::~MiniportScope()
{
    current = nullptr;
}

FakeMiniport& MiniportScope::AddEthernet(const std::wstring& guid)
{
    FakeMiniport& adapter = adapters[guid];
    adapter.Set(OID_GEN_MEDIA_SUPPORTED, NdisMedium802_3);
    adapter.Set(OID_GEN_PHYSICAL_MEDIUM, 0u);
    adapter.Set(OID_GEN_LINK_SPEED, 10'000'000u);
    adapter.Set(OID_GEN_VENDOR_ID, 0xABCu);
    adapter.Set(OID_GEN_VENDOR_DRIVER_VERSION, 0x50001u);
    adapter.Set(OID_GEN_VENDOR_DESCRIPTION, std::string("Test Vendor"));
    adapter.Set(OID_GEN_MEDIA_CONNECT_STATUS, 0u);
    return adapter;
}

namespace
{
template <class Function>
Function Real(const wchar_t* library, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(library), name)));
}

HANDLE WINAPI HookedCreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security,
                                DWORD disposition, DWORD flags, HANDLE templateFile)
{
    if (MiniportScope* const scope = MiniportScope::current;
        scope != nullptr && std::wcsncmp(path, L"\\\\.\\{", 5) == 0)
    {
        ++scope->opens;
        if (!scope->adapters.contains(path + 4))
        {
            SetLastError(ERROR_FILE_NOT_FOUND);
            return INVALID_HANDLE_VALUE;
        }
        const HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, nullptr); // something that CloseHandle takes
        scope->open[handle] = path + 4;
        SetLastError(ERROR_SUCCESS);
        return handle;
    }
    static const auto real = Real<decltype(&CreateFileW)>(L"kernel32.dll", "CreateFileW");
    return real(path, access, share, security, disposition, flags, templateFile);
}

BOOL WINAPI HookedDeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD inSize, LPVOID out, DWORD outSize,
                                  LPDWORD returned, LPOVERLAPPED overlapped)
{
    MiniportScope* const scope = MiniportScope::current;
    if (scope == nullptr || !scope->open.contains(device))
    {
        static const auto real = Real<decltype(&DeviceIoControl)>(L"kernel32.dll", "DeviceIoControl");
        return real(device, code, in, inSize, out, outSize, returned, overlapped);
    }
    std::uint32_t oid = 0;
    std::memcpy(&oid, in, std::min<std::size_t>(sizeof oid, inSize));
    const auto& answers = scope->adapters[scope->open[device]].answers;
    const auto found = answers.find(oid);
    *returned = 0;
    if (code != IOCTL_NDIS_QUERY_GLOBAL_STATS || found == answers.end())
    {
        SetLastError(ERROR_NOT_SUPPORTED);
        return FALSE;
    }
    const auto size = std::min<std::size_t>(found->second.size(), outSize);
    std::memcpy(out, found->second.data(), size);
    *returned = static_cast<DWORD>(size);
    return TRUE;
}

DWORD WINAPI HookedSendARP(IPAddr destination, IPAddr source, PVOID mac, PULONG length)
{
    MiniportScope* const scope = MiniportScope::current;
    if (scope == nullptr)
    {
        return ERROR_NOT_SUPPORTED;
    }
    ++scope->arpCalls;
    scope->arpDestination = destination;
    scope->arpSource = source;
    if (scope->arpResult == NO_ERROR)
    {
        const auto size = std::min<std::size_t>(scope->arpMac.size(), 6);
        std::memcpy(mac, scope->arpMac.data(), size);
        *length = static_cast<ULONG>(size);
    }
    return scope->arpResult;
}
} // namespace

// The import slots. The names are the linker's.
extern "C"
{
    decltype(&HookedCreateFileW) __imp_CreateFileW = &HookedCreateFileW;
    decltype(&HookedDeviceIoControl) __imp_DeviceIoControl = &HookedDeviceIoControl;

    // Declared without an import slot: the function itself takes the place of the import library's.
    DWORD WINAPI SendARP(IPAddr destination, IPAddr source, PVOID mac, PULONG length)
    {
        return HookedSendARP(destination, source, mac, length);
    }
}
