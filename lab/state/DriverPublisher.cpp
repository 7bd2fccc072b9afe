// From the state to the kernel driver's table.
#include "lab/state/MachineImpl.h"
#include "lab/state/Model.h"
#include "lab/state/Text.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace lab
{

namespace
{

constexpr std::uint32_t statusNotSupported = 0xC00000BB;

void SetName(LabChar16 (&target)[LAB_NAME_CHARS], const std::string& text)
{
    const std::wstring wide = Wide(text).substr(0, LAB_NAME_CHARS - 1);
    std::memcpy(target, wide.c_str(), (wide.size() + 1) * sizeof(wchar_t));
}

// The slot of an identifier, taking a free one on first mention.
LabOid& Slot(LabAdapter& adapter, std::uint32_t oid)
{
    for (std::uint32_t i = 0; i < adapter.oidCount; ++i)
    {
        if (adapter.oids[i].oid == oid)
        {
            return adapter.oids[i];
        }
    }
    if (adapter.oidCount == LAB_MAX_OIDS)
    {
        throw std::runtime_error("too many object identifiers for one adapter");
    }
    LabOid& slot = adapter.oids[adapter.oidCount++];
    slot.oid = oid;
    return slot;
}

void SetBytes(LabAdapter& adapter, std::uint32_t oid, const void* bytes, std::size_t length)
{
    LabOid& slot = Slot(adapter, oid);
    slot.status = 0;
    slot.length = static_cast<LabU32>(std::min<std::size_t>(length, LAB_OID_BYTES));
    std::memcpy(slot.bytes, bytes, slot.length);
}

void SetNumber(LabAdapter& adapter, std::uint32_t oid, std::uint32_t value)
{
    SetBytes(adapter, oid, &value, sizeof value);
}

// "02:00:5E", "02 00 5e", "02-00": pairs of hexadecimal digits, whatever stands between them.
std::vector<LabByte> ParseBytes(const std::string& text)
{
    std::vector<LabByte> bytes;
    int high = -1;
    for (const char c : text)
    {
        const int digit = c >= '0' && c <= '9'   ? c - '0'
                          : c >= 'a' && c <= 'f' ? c - 'a' + 10
                          : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                 : -1;
        if (digit < 0)
        {
            continue;
        }
        if (high < 0)
        {
            high = digit;
        }
        else
        {
            bytes.push_back(static_cast<LabByte>(high * 16 + digit));
            high = -1;
        }
    }
    return bytes;
}

void ApplyOverride(LabAdapter& adapter, std::uint32_t oid, const Json& answer)
{
    if (answer.contains("bytes"))
    {
        const auto bytes = ParseBytes(TextField(answer, "bytes"));
        SetBytes(adapter, oid, bytes.data(), bytes.size());
    }
    else if (answer.contains("u32"))
    {
        SetNumber(adapter, oid, static_cast<std::uint32_t>(NumberField(answer, "u32", 0)));
    }
    else if (answer.contains("text"))
    {
        const std::string text = TextField(answer, "text");
        SetBytes(adapter, oid, text.c_str(), text.size() + 1);
    }
    if (answer.contains("status"))
    {
        Slot(adapter, oid).status = static_cast<LabU32>(NumberField(answer, "status", statusNotSupported));
    }
    Slot(adapter, oid).delayMs = static_cast<LabU32>(NumberField(answer, "delayMs", 0));
}

void Fill(LabAdapter& target, const Json& adapter)
{
    std::memset(&target, 0, sizeof target);
    const Json& driver = Member(adapter, "driver");
    target.used = IsPresent(adapter) ? 1 : 0;
    target.openable = target.used != 0 && FlagField(driver, "open", true) ? 1 : 0;
    SetName(target.name, TextField(adapter, "guid"));

    SetNumber(target, 0x00010103,
              static_cast<std::uint32_t>(NumberField(driver, "medium", 0))); // OID_GEN_MEDIA_SUPPORTED
    SetNumber(target, 0x00010104, static_cast<std::uint32_t>(NumberField(driver, "medium", 0))); // OID_GEN_MEDIA_IN_USE
    if (driver.contains("physicalMedium"))
    {
        SetNumber(target, 0x00010202, static_cast<std::uint32_t>(NumberField(driver, "physicalMedium", 0)));
    }
    // OID_GEN_LINK_SPEED counts in units of 100 bit/s.
    SetNumber(target, 0x00010107, static_cast<std::uint32_t>(NumberField(driver, "linkSpeed", 0) / 100));
    SetNumber(target, 0x0001010C, static_cast<std::uint32_t>(NumberField(driver, "vendorId", 0)));
    const std::string text = TextField(driver, "vendorDescription");
    SetBytes(target, 0x0001010D, text.c_str(), text.size() + 1);
    SetNumber(target, 0x00010114, IsConnected(adapter) ? 0 : 1); // OID_GEN_MEDIA_CONNECT_STATUS
    SetNumber(target, 0x00010116, static_cast<std::uint32_t>(NumberField(driver, "driverVersion", 0)));
    if (const std::string mac = TextField(adapter, "mac"); !mac.empty())
    {
        const auto bytes = ParseBytes(mac);
        SetBytes(target, 0x01010101, bytes.data(), bytes.size()); // OID_802_3_PERMANENT_ADDRESS
        SetBytes(target, 0x01010102, bytes.data(), bytes.size()); // OID_802_3_CURRENT_ADDRESS
    }
    for (const auto& [key, answer] : Member(driver, "oids").items())
    {
        if (const auto oid = ParseNumber(key))
        {
            ApplyOverride(target, *oid, answer);
        }
    }
}

void Fill(LabDevice& target, const Json& device)
{
    target.used = 1;
    target.openable = FlagField(device, "open", true) ? 1 : 0;
    SetName(target.name, TextField(device, "name"));
    target.kind = static_cast<LabU32>(NumberField(device, "kind", 0));
    const auto bytes = ParseBytes(TextField(device, "data"));
    target.length = static_cast<LabU32>(std::min<std::size_t>(bytes.size(), LAB_DEVICE_BYTES));
    if (target.length != 0)
    {
        std::memcpy(target.data, bytes.data(), target.length);
    }
}

// The table's sequence number is odd while one of these lives.
class WritingScope
{
public:
    explicit WritingScope(LabDriverTable& table) noexcept : m_table(table) { Step(); }
    ~WritingScope() { Step(); }
    WritingScope(const WritingScope&) = delete;
    WritingScope& operator=(const WritingScope&) = delete;

private:
    void Step() noexcept
    {
        MemoryBarrier();
        m_table.sequence = m_table.sequence + 1;
        MemoryBarrier();
    }
    LabDriverTable& m_table;
};

// Copies `fresh` over `target` if they differ; true if the part before `identity` bytes does.
template <class T>
bool Store(T& target, const T& fresh, std::size_t identity)
{
    if (std::memcmp(&target, &fresh, sizeof fresh) == 0)
    {
        return false;
    }
    const bool other = std::memcmp(&target, &fresh, identity) != 0;
    std::memcpy(&target, &fresh, sizeof fresh);
    return other;
}

} // namespace

bool PublishDriverTable(LabDriverTable& table, const Json& state)
{
    // An adapter keeps its slot for as long as it is in the list, so that the driver's device keeps its place.
    std::vector<const Json*> placed(LAB_MAX_ADAPTERS);
    std::vector<const Json*> waiting;
    for (const Json& adapter : Member(state, "adapters"))
    {
        LabChar16 name[LAB_NAME_CHARS]{};
        SetName(name, TextField(adapter, "guid"));
        const auto slot = std::find_if(std::begin(table.adapters), std::end(table.adapters), [&](const LabAdapter& used)
                                       { return used.name[0] != 0 && std::memcmp(used.name, name, sizeof name) == 0; });
        const auto place = static_cast<std::size_t>(slot - std::begin(table.adapters));
        if (place < placed.size() && placed[place] == nullptr)
        {
            placed[place] = &adapter;
        }
        else
        {
            waiting.push_back(&adapter);
        }
    }
    for (const Json* adapter : waiting)
    {
        if (const auto slot = std::find(placed.begin(), placed.end(), nullptr); slot != placed.end())
        {
            *slot = adapter;
        }
    }

    bool devicesChanged = false;
    const auto fresh = std::make_unique<LabAdapter>();
    const auto freshDevice = std::make_unique<LabDevice>();
    const WritingScope writing{table};
    for (std::size_t i = 0; i < placed.size(); ++i)
    {
        std::memset(fresh.get(), 0, sizeof *fresh);
        if (placed[i] != nullptr)
        {
            Fill(*fresh, *placed[i]);
        }
        devicesChanged |= Store(table.adapters[i], *fresh, offsetof(LabAdapter, oidCount));
    }
    const Json& devices = Member(state, "driverDevices");
    for (std::size_t i = 0; i < LAB_MAX_DEVICES; ++i)
    {
        std::memset(freshDevice.get(), 0, sizeof *freshDevice);
        if (devices.is_array() && i < devices.size())
        {
            Fill(*freshDevice, devices[i]);
        }
        devicesChanged |= Store(table.devices[i], *freshDevice, sizeof(LabDevice));
    }
    return devicesChanged;
}

void SyncDriver() noexcept
{
    const Handle control{CreateFileW(LAB_DRIVER_CONTROL_NAME, GENERIC_READ | GENERIC_WRITE,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr)};
    if (control)
    {
        DWORD returned = 0;
        DeviceIoControl(control.get(), LAB_IOCTL_SYNC, nullptr, 0, nullptr, 0, &returned, nullptr);
    }
}

} // namespace lab
