#include "lab/labctl/Registry.h"

#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>

namespace lab::ctl
{

namespace
{

constexpr wchar_t locatorKey[] = L"Software\\Classes\\CLSID\\{4590F811-1D3A-11D0-891F-00AA004B2E24}\\InprocServer32";
constexpr wchar_t labKey[] = L"Software\\HalcydLab";
constexpr wchar_t previousServer[] = L"PreviousWbemLocator";
constexpr wchar_t writtenKeys[] = L"WrittenKeys";
constexpr char networkClass[] = "{4D36E972-E325-11CE-BFC1-08002BE10318}";

// One registry key of HKEY_LOCAL_MACHINE, made if it is not there.
class Key
{
public:
    explicit Key(const std::wstring& path)
    {
        if (const LSTATUS error = RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS,
                                                  nullptr, &m_key, nullptr))
        {
            throw std::runtime_error("cannot write registry key " + Utf8(path) + " (error " + std::to_string(error) +
                                     ")");
        }
    }
    ~Key() { RegCloseKey(m_key); }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    void Text(const wchar_t* name, const std::string& text) const
    {
        const std::wstring wide = Wide(text);
        Set(name, REG_SZ, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
    }
    void Number(const wchar_t* name, DWORD number) const { Set(name, REG_DWORD, &number, sizeof number); }
    void Texts(const wchar_t* name, const std::vector<std::string>& texts) const
    {
        std::wstring wide;
        for (const std::string& text : texts)
        {
            wide += Wide(text) + L'\0';
        }
        Set(name, REG_MULTI_SZ, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
    }
    void Remove(const wchar_t* name) const { RegDeleteValueW(m_key, name); }
    [[nodiscard]] std::wstring Read(const wchar_t* name,
                                    DWORD flags = RRF_RT_REG_SZ | RRF_RT_REG_EXPAND_SZ | RRF_NOEXPAND) const
    {
        DWORD size = 0;
        if (RegGetValueW(m_key, nullptr, name, flags, nullptr, nullptr, &size) != ERROR_SUCCESS ||
            size < sizeof(wchar_t))
        {
            return {};
        }
        std::wstring text(size / sizeof(wchar_t), L'\0');
        if (RegGetValueW(m_key, nullptr, name, flags, nullptr, text.data(), &size) != ERROR_SUCCESS)
        {
            return {};
        }
        text.resize(size / sizeof(wchar_t));
        while (!text.empty() && text.back() == L'\0')
        {
            text.pop_back();
        }
        return text;
    }

private:
    void Set(const wchar_t* name, DWORD type, const void* data, std::size_t size) const
    {
        if (const LSTATUS error =
                RegSetValueExW(m_key, name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)))
        {
            throw std::runtime_error("cannot write registry value " + Utf8(name) + " (error " + std::to_string(error) +
                                     ")");
        }
    }
    HKEY m_key = nullptr;
};

std::wstring ClassKey()
{
    return L"System\\CurrentControlSet\\Control\\Class\\" + Wide(networkClass);
}

std::string DriverNumber(const Json& adapter)
{
    char text[16];
    std::snprintf(text, sizeof text, "%04d", static_cast<int>(NumberField(adapter, "index", 0)));
    return text;
}

std::vector<std::string> HardwareIds(const Json& device, const std::string& id)
{
    std::vector<std::string> ids;
    for (const Json& entry : Member(device, "hardwareIds"))
    {
        ids.push_back(entry.get<std::string>());
    }
    if (ids.empty())
    {
        ids.push_back(id.substr(0, id.find_last_of('\\'))); // the enumerator and the device, without the instance
    }
    return ids;
}

std::string JoinedList(const Json& list)
{
    std::string text;
    for (const Json& entry : list)
    {
        text += (text.empty() ? "" : ",") + entry.get<std::string>();
    }
    return text;
}

void WriteClassKey(const Json& adapter, const std::wstring& path)
{
    const Key key{path};
    const Json& driver = Member(adapter, "driver");
    key.Text(L"NetCfgInstanceId", TextField(adapter, "guid"));
    key.Text(L"DriverDesc", TextField(adapter, "description"));
    key.Text(L"ProviderName", TextField(adapter, "manufacturer"));
    key.Text(L"ComponentId", TextField(adapter, "componentId", Lower(TextField(adapter, "service"))));
    key.Text(L"DeviceInstanceID", TextField(adapter, "pnpDeviceId"));
    key.Number(L"*MediaType", static_cast<DWORD>(NumberField(driver, "medium", 0)));
    key.Number(L"*PhysicalMediaType", static_cast<DWORD>(NumberField(driver, "physicalMedium", 0)));
    // A null stands for a driver that never wrote the value.
    if (Member(adapter, "characteristics").is_null())
    {
        key.Remove(L"Characteristics");
    }
    else
    {
        key.Number(L"Characteristics", static_cast<DWORD>(NumberField(adapter, "characteristics", 0)));
    }
}

void WriteDeviceKey(const Json& device, const std::wstring& path, const std::string& id, const std::string& className,
                    const std::string& classGuid, const std::string& driver)
{
    const Key key{path};
    key.Text(L"Class", className);
    key.Text(L"ClassGUID", classGuid);
    key.Text(L"DeviceDesc", TextField(device, "description"));
    key.Text(L"FriendlyName", TextField(device, "friendlyName", TextField(device, "description")));
    key.Text(L"Mfg", TextField(device, "manufacturer"));
    key.Text(L"Service", TextField(device, "service"));
    key.Texts(L"HardwareID", HardwareIds(device, id));
    key.Number(L"ConfigFlags", NumberField(device, "problem", 0) == 22 ? 1 : 0);
    if (!driver.empty())
    {
        key.Text(L"Driver", driver);
    }
    // The device key proper, which Windows makes for every device; ports keep their name in it.
    const Key parameters{path + L"\\Device Parameters"};
    if (device.contains("portName"))
    {
        parameters.Text(L"PortName", TextField(device, "portName"));
    }
}

void WriteAdapter(const Json& adapter, std::vector<std::wstring>& written)
{
    const std::string guid = TextField(adapter, "guid");
    const std::string number = DriverNumber(adapter);
    if (FlagField(adapter, "classKey", true))
    {
        written.push_back(ClassKey() + L"\\" + Wide(number));
        WriteClassKey(adapter, written.back());
    }
    const std::string id = TextField(adapter, "pnpDeviceId");
    if (!id.empty() && IsPresent(adapter))
    {
        written.push_back(L"System\\CurrentControlSet\\Enum\\" + Wide(id));
        WriteDeviceKey(adapter, written.back(), id, "Net", networkClass, std::string{networkClass} + "\\" + number);
    }
    if (adapter.contains("alias"))
    {
        written.push_back(L"System\\CurrentControlSet\\Control\\Network\\" + Wide(networkClass) + L"\\" + Wide(guid));
        const Key connection{written.back() + L"\\Connection"};
        connection.Text(L"Name", TextField(adapter, "alias"));
        connection.Text(L"PnpInstanceID", id);
    }
    written.push_back(L"System\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\" + Wide(guid));
    const Key tcpip{written.back()};
    tcpip.Number(L"EnableDHCP", FlagField(Member(adapter, "dhcp"), "enabled", false) ? 1 : 0);
    tcpip.Text(L"DhcpNameServer", JoinedList(Member(adapter, "dns")));
    // A stack that was never given servers has no such value at all: "nameServerValue" false.
    if (FlagField(adapter, "nameServerValue", true))
    {
        tcpip.Text(L"NameServer", JoinedList(Member(adapter, "dnsStatic")));
    }
    else
    {
        tcpip.Remove(L"NameServer");
    }
}

void RemoveKeys(const std::wstring& list, const std::vector<std::wstring>& kept)
{
    for (std::size_t from = 0; from < list.size();)
    {
        const std::size_t to = std::min(list.find(L'\0', from), list.size());
        const std::wstring path = list.substr(from, to - from);
        if (!path.empty() && std::find(kept.begin(), kept.end(), path) == kept.end())
        {
            RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
            RegDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str());
        }
        from = to + 1;
    }
}

} // namespace

void InstallWmi(const std::filesystem::path& dll)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(dll, error))
    {
        throw std::runtime_error("no file " + Utf8(dll.wstring()) + "; name the stand-in with --dll");
    }
    const Key server{locatorKey};
    const Key own{labKey};
    if (!IsWmiInstalled())
    {
        own.Text(previousServer, Utf8(server.Read(nullptr)));
    }
    server.Text(nullptr, Utf8(dll.wstring()));
    server.Text(L"ThreadingModel", "Both");
}

bool IsWmiInstalled()
{
    return RegGetValueW(HKEY_LOCAL_MACHINE, labKey, previousServer, RRF_RT_REG_SZ, nullptr, nullptr, nullptr) ==
           ERROR_SUCCESS;
}

void WriteAdapterKeys(const Json& state)
{
    std::vector<std::wstring> written;
    for (const Json& adapter : Member(state, "adapters"))
    {
        WriteAdapter(adapter, written);
    }
    for (const Json& device : Member(state, "devices"))
    {
        const std::string id = TextField(device, "id");
        written.push_back(L"System\\CurrentControlSet\\Enum\\" + Wide(id));
        WriteDeviceKey(device, written.back(), id, TextField(device, "class"), TextField(device, "classGuid"),
                       TextField(device, "driver"));
    }
    const Key own{labKey};
    RemoveKeys(own.Read(writtenKeys, RRF_RT_REG_MULTI_SZ), written);
    std::vector<std::string> names;
    for (const std::wstring& path : written)
    {
        names.push_back(Utf8(path));
    }
    own.Texts(writtenKeys, names);
}

void Uninstall()
{
    if (IsWmiInstalled())
    {
        const Key server{locatorKey};
        const Key own{labKey};
        server.Text(nullptr, Utf8(own.Read(previousServer)));
        RemoveKeys(own.Read(writtenKeys, RRF_RT_REG_MULTI_SZ), {});
    }
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, labKey);
    RegDeleteKeyW(HKEY_LOCAL_MACHINE, labKey);
}

} // namespace lab::ctl
