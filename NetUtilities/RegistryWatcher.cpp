#include "NetUtilities/RegistryWatcher.h"

#include "NetUtilities/Clock.h"

namespace
{
constexpr wchar_t WatchedKey[] = L"Software\\QRLS\\Sorvane";
constexpr REGSAM WatchAccess = 17; // KEY_QUERY_VALUE | KEY_NOTIFY
constexpr DWORD AllChanges = 15;   // name, attributes, last set, security
} // namespace

void RegistryWatcher::Start()
{
    if (key.Open(HKEY_LOCAL_MACHINE, WatchedKey, WatchAccess) != ERROR_SUCCESS)
    {
        return; // nothing to watch: no event then
    }
    changed.reset(CreateEventW(nullptr, TRUE, FALSE, L"RegistryWatcher"));
    ReadSwitch();
}

void RegistryWatcher::ReadSwitch()
{
    std::uint32_t value = 0;
    key.ReadDword(L"debug2", value, 0);
    if (changed)
    {
        key.NotifyChange(true, AllChanges, changed.get());
    }
    enabled = value != 0;
}

void RegistryWatcher::Poll()
{
    if (changed && Clock::Current().Wait(changed.get(), 0) == WAIT_OBJECT_0)
    {
        ReadSwitch();
        ResetEvent(changed.get());
    }
}

void RegistryWatcher::Stop() noexcept
{
    key.Close();
    changed.reset();
}
