// Makes the platform calls that the shims stand in for and prints what came back, one line each.
//
//   arp DESTINATION SOURCE [ROOM]     tree ID     node ID     setup     watch COUNT [v4|v6]     calls     power
//   service FILE                      as a service: writes each control that its handler gets into FILE
#include <winsock2.h>
#include <windows.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <netioapi.h>
#include <setupapi.h>
#include <cfgmgr32.h>
#include <objbase.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace
{

// ---- arp ----

IPAddr ParseAddress(const wchar_t* text)
{
    IN_ADDR address{};
    InetPtonW(AF_INET, text, &address);
    return address.s_addr;
}

int Arp(const std::vector<std::wstring>& words)
{
    std::array<BYTE, 8> mac{};
    ULONG length = words.size() > 3 ? std::stoul(words[3]) : 6;
    const DWORD error = SendARP(ParseAddress(words[1].c_str()), ParseAddress(words[2].c_str()), mac.data(), &length);
    std::printf("%lu %02x:%02x:%02x:%02x:%02x:%02x %lu\n", error, mac[0], mac[1], mac[2], mac[3], mac[4], mac[5],
                length);
    return 0;
}

// ---- device tree ----

std::wstring IdOf(DEVINST node)
{
    wchar_t id[260]{};
    const CONFIGRET code = CM_Get_Device_IDW(node, id, 260, 0);
    return code == CR_SUCCESS ? id : L"error " + std::to_wstring(code);
}

void PrintTree(DEVINST node, int depth)
{
    std::printf("%*s%ls\n", depth, "", IdOf(node).c_str());
    DEVINST child = 0;
    for (CONFIGRET code = CM_Get_Child(&child, node, 0); code == CR_SUCCESS; code = CM_Get_Sibling(&child, child, 0))
        PrintTree(child, depth + 1);
}

int Tree(const std::vector<std::wstring>& words)
{
    std::wstring id = words.size() > 1 ? words[1] : L"";
    DEVINST node = 0;
    if (const CONFIGRET code = CM_Locate_DevNodeW(&node, id.data(), CM_LOCATE_DEVNODE_NORMAL); code != CR_SUCCESS)
    {
        std::printf("locate %lu\n", code);
        return 0;
    }
    DEVINST parent = 0;
    const CONFIGRET code = CM_Get_Parent(&parent, node, 0);
    std::printf("parent %lu %ls\n", code, code == CR_SUCCESS ? IdOf(parent).c_str() : L"");
    PrintTree(node, 0);
    return 0;
}

void PrintValue(const char* name, ULONG code, ULONG type, const std::vector<wchar_t>& text)
{
    std::printf("%s %lu type %lu", name, code, type);
    if (code == 0)
    {
        for (const wchar_t* entry = text.data(); *entry != L'\0'; entry += std::wstring(entry).size() + 1)
        {
            std::printf(" '%ls'", entry);
            if (type != REG_MULTI_SZ)
                break;
        }
    }
    std::printf("\n");
}

int Node(const std::vector<std::wstring>& words)
{
    std::wstring id = words[1];
    DEVINST node = 0;
    CM_Locate_DevNodeW(&node, id.data(), 0);
    ULONG status = 0;
    ULONG problem = 0;
    const CONFIGRET asked = CM_Get_DevNode_Status(&status, &problem, node, 0);
    std::printf("status %lu %#lx %lu\n", asked, status, problem);
    for (const ULONG property : {1UL, 2UL, 5UL, 8UL, 10UL, 12UL, 13UL})
    {
        std::vector<wchar_t> text(1024);
        ULONG type = 0;
        auto size = static_cast<ULONG>(text.size() * sizeof(wchar_t));
        const CONFIGRET code = CM_Get_DevNode_Registry_PropertyW(node, property, &type, text.data(), &size, 0);
        PrintValue(("cm " + std::to_string(property)).c_str(), code, type, text);
    }
    const HDEVINFO set = SetupDiCreateDeviceInfoList(nullptr, nullptr);
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    const BOOL opened = SetupDiOpenDeviceInfoW(set, id.c_str(), nullptr, 0, &data);
    std::printf("open %lu\n", opened ? 0 : GetLastError());
    for (const DWORD property : {0UL, 1UL, 4UL, 7UL, 9UL, 11UL, 12UL})
    {
        std::vector<wchar_t> text(1024);
        DWORD type = 0;
        const BOOL got =
            SetupDiGetDeviceRegistryPropertyW(set, &data, property, &type, reinterpret_cast<BYTE*>(text.data()),
                                              static_cast<DWORD>(text.size() * sizeof(wchar_t)), nullptr);
        PrintValue(("setup " + std::to_string(property)).c_str(), got ? 0 : GetLastError(), type, text);
    }
    SetupDiDestroyDeviceInfoList(set);
    return 0;
}

std::wstring InstanceOf(HDEVINFO set, SP_DEVINFO_DATA& data)
{
    const HKEY key = SetupDiOpenDevRegKey(set, &data, DICS_FLAG_GLOBAL, 0, DIREG_DRV, KEY_READ);
    if (key == INVALID_HANDLE_VALUE)
        return L"no key";
    wchar_t text[260]{};
    DWORD size = sizeof text;
    const LSTATUS error =
        RegQueryValueExW(key, L"NetCfgInstanceId", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size);
    RegCloseKey(key);
    return error == ERROR_SUCCESS ? text : L"no value";
}

int Setup(const std::vector<std::wstring>&)
{
    constexpr GUID networkClass{0x4D36E972, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};
    const HDEVINFO set = SetupDiGetClassDevsW(&networkClass, nullptr, nullptr, DIGCF_PRESENT);
    if (set == INVALID_HANDLE_VALUE)
    {
        std::printf("error %lu\n", GetLastError());
        return 0;
    }
    for (DWORD index = 0;; ++index)
    {
        SP_DEVINFO_DATA data{};
        data.cbSize = sizeof data;
        if (!SetupDiEnumDeviceInfo(set, index, &data))
        {
            std::printf("end %lu\n", GetLastError());
            break;
        }
        wchar_t id[260]{};
        SetupDiGetDeviceInstanceIdW(set, &data, id, 260, nullptr);
        std::printf("%ls %ls\n", id, InstanceOf(set, data).c_str());
    }
    SetupDiDestroyDeviceInfoList(set);
    return 0;
}

// ---- address notifications ----

struct Watcher
{
    HANDLE arrived = CreateSemaphoreW(nullptr, 0, 1000, nullptr);
};

void WINAPI OnAddress(PVOID context, PMIB_UNICASTIPADDRESS_ROW row, MIB_NOTIFICATION_TYPE type)
{
    if (row == nullptr)
        std::printf("initial %d\n", type);
    else
        std::printf("%s %d family %u prefix %u interface %lu\n", type == MibAddInstance ? "add" : "delete", type,
                    row->Address.si_family, row->OnLinkPrefixLength, row->InterfaceIndex);
    std::fflush(stdout);
    ReleaseSemaphore(static_cast<Watcher*>(context)->arrived, 1, nullptr);
}

int Watch(const std::vector<std::wstring>& words)
{
    Watcher watcher;
    HANDLE registration = nullptr;
    const bool initial = words.size() > 2 && words[2] == L"initial";
    const ADDRESS_FAMILY family = words.size() > 2 && words[2] == L"v6" ? AF_INET6 : AF_UNSPEC;
    const DWORD error = NotifyUnicastIpAddressChange(family, OnAddress, &watcher, initial, &registration);
    std::printf("registered %lu\n", error);
    std::fflush(stdout);
    if (error != 0)
        return 0;
    for (int left = std::stoi(words[1]); left > 0; --left)
        WaitForSingleObject(watcher.arrived, 30000);
    std::printf("cancelled %lu\n", CancelMibChangeNotify2(registration));
    return 0;
}

// ---- hooked calls ----

int Calls(const std::vector<std::wstring>&)
{
    SetLastError(77);
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, nullptr);
    std::printf("CreateEventW %d %lu\n", event != nullptr, event != nullptr ? 0 : GetLastError());
    const HANDLE file =
        CreateFileW(L"C:\\windows\\system32\\kernel32.dll", GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr);
    const DWORD fileError = GetLastError();
    std::printf("CreateFileW %d %lu\n", file != INVALID_HANDLE_VALUE, fileError);
    HKEY key = nullptr;
    std::printf("RegOpenKeyExW %ld\n", RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"Software\\Microsoft", 0, KEY_READ, &key));
    std::printf("CoInitializeEx %#lx\n", static_cast<unsigned long>(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    std::printf("CoTaskMemAlloc %d\n", CoTaskMemAlloc(16) != nullptr);
    const bool loaded = LoadLibraryW(L"version.dll") != nullptr;
    const DWORD loadError = GetLastError();
    std::printf("LoadLibraryW %d %lu\n", loaded, loaded ? 0 : loadError);
    return 0;
}

int Power(const std::vector<std::wstring>&)
{
    SYSTEM_POWER_STATUS status{};
    if (GetSystemPowerStatus(&status))
        std::printf("line %d flag %d percent %d\n", status.ACLineStatus, status.BatteryFlag, status.BatteryLifePercent);
    else
        std::printf("error %lu\n", GetLastError());
    return 0;
}

// ---- service ----

std::wstring g_file;
HANDLE g_stop = nullptr;
SERVICE_STATUS_HANDLE g_status = nullptr;
int g_context = 0;

void Append(const std::string& line)
{
    const HANDLE file =
        CreateFileW(g_file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, OPEN_ALWAYS, 0, nullptr);
    DWORD written = 0;
    WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    CloseHandle(file);
}

DWORD WINAPI OnControl(DWORD control, DWORD type, void* data, void* context)
{
    char line[200];
    std::snprintf(line, sizeof line, "control %lu type %lu data %d context %d\n", control, type,
                  data == nullptr ? -1 : *static_cast<int*>(data), context == &g_context);
    Append(line);
    if (control == SERVICE_CONTROL_STOP)
        SetEvent(g_stop);
    return control == 200 ? 1234 : 0;
}

void Report(DWORD state)
{
    SERVICE_STATUS status{SERVICE_WIN32_OWN_PROCESS, state, SERVICE_ACCEPT_STOP, 0, 0, 0, 0};
    SetServiceStatus(g_status, &status);
}

void WINAPI RunService(DWORD, wchar_t**)
{
    g_status = RegisterServiceCtrlHandlerExW(L"ShimProbe", OnControl, &g_context);
    if (g_status == nullptr)
        return;
    Report(SERVICE_RUNNING);
    WaitForSingleObject(g_stop, INFINITE);
    Report(SERVICE_STOPPED);
}

int Service(const std::vector<std::wstring>& words)
{
    g_file = words[1];
    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    wchar_t name[] = L"ShimProbe";
    const SERVICE_TABLE_ENTRYW table[] = {{name, RunService}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : 1;
}

} // namespace

int wmain(int argc, wchar_t** argv)
{
    const std::vector<std::wstring> words(argv + 1, argv + argc);
    WSADATA sockets{};
    WSAStartup(MAKEWORD(2, 2), &sockets);
    struct Command
    {
        const wchar_t* name;
        int (*run)(const std::vector<std::wstring>&);
    };
    for (const Command& command : {Command{L"arp", Arp},
                                   {L"tree", Tree},
                                   {L"node", Node},
                                   {L"setup", Setup},
                                   {L"watch", Watch},
                                   {L"calls", Calls},
                                   {L"power", Power},
                                   {L"service", Service}})
    {
        if (!words.empty() && words[0] == command.name)
            return command.run(words);
    }
    return 2;
}
