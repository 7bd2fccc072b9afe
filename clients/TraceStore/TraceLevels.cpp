#include "clients/TraceStore/TraceLevels.h"

#include <optional>
#include <string>

#include "NetUtilities/Handles.h"
#include "clients/TraceStore/StoreSettings.h"

namespace
{
std::optional<std::uint16_t> ReadLevel(const wchar_t* key, const wchar_t* value)
{
    DWORD number = 0;
    DWORD size = sizeof number;
    if (RegGetValueW(HKEY_LOCAL_MACHINE, key, value, RRF_RT_REG_DWORD, nullptr, &number, &size) != ERROR_SUCCESS ||
        number > TraceLevels::HighestLevel)
    {
        return std::nullopt;
    }
    return static_cast<std::uint16_t>(number);
}

HRESULT WriteLevel(const wchar_t* value, std::uint16_t level)
{
    UniqueRegistryHandle key;
    LSTATUS status = RegCreateKeyExW(HKEY_LOCAL_MACHINE, StoreSettings::LevelsKey, 0, nullptr, 0, KEY_SET_VALUE,
                                     nullptr, key.put(), nullptr);
    if (status == ERROR_SUCCESS)
    {
        const DWORD number = level;
        status = RegSetValueExW(key.get(), value, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), sizeof number);
    }
    return HRESULT_FROM_WIN32(static_cast<DWORD>(status));
}
} // namespace

TraceLevels::TraceLevels()
{
    std::optional<std::uint16_t> level = ReadLevel(StoreSettings::LevelsKey, L"Global");
    if (!level)
    {
        level = ReadLevel(StoreSettings::ProductKey, L"TraceLevel");
    }
    global = level.value_or(DefaultLevel);
    for (std::uint16_t source = 0; source < SourceCount; ++source)
    {
        sources[source] = ReadLevel(StoreSettings::LevelsKey, std::to_wstring(source).c_str()).value_or(0);
    }
}

HRESULT TraceLevels::Source(std::uint16_t source, std::uint16_t& level) const noexcept
{
    if (source >= SourceCount)
    {
        return E_INVALIDARG;
    }
    level = sources[source].load(std::memory_order_relaxed);
    return S_OK;
}

HRESULT TraceLevels::SetGlobal(std::uint16_t level) noexcept
{
    if (level > HighestLevel)
    {
        return E_INVALIDARG;
    }
    const HRESULT kept = WriteLevel(L"Global", level);
    if (SUCCEEDED(kept))
    {
        global = level;
    }
    return kept;
}

HRESULT TraceLevels::SetSource(std::uint16_t source, std::uint16_t level) noexcept
{
    if (source >= SourceCount || level > HighestLevel)
    {
        return E_INVALIDARG;
    }
    const HRESULT kept = WriteLevel(std::to_wstring(source).c_str(), level);
    if (SUCCEEDED(kept))
    {
        sources[source] = level;
    }
    return kept;
}
