#pragma once
// All access to the registry goes through this class. Operations return the platform's Win32 code, 0 for success,
// and raise nothing of their own. Failures are traced (default source, level 2) if the object was made with report
// errors on; "not found" never is, because optional values are asked for all the time.

#include <windows.h>
#include <oaidl.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "NetUtilities/MultiString.h"

// A value as it was read. Empty (no data, type 0) after a read of a type that the system does not care about.
struct RegistryValue
{
    std::wstring name;
    std::uint32_t type = 0;
    std::unique_ptr<std::byte[]> data;
    std::uint32_t size = 0; // bytes

    [[nodiscard]] std::span<const std::byte> Bytes() const noexcept { return {data.get(), size}; }
    void Clear() noexcept;
};

// One key, closed or open. Used by one thread at a time.
class RegistryKey
{
public:
    explicit RegistryKey(bool reportErrors = true) noexcept : report(reportErrors) {}
    ~RegistryKey() { Close(); }
    RegistryKey(const RegistryKey&) = delete;
    RegistryKey& operator=(const RegistryKey&) = delete;

    // Open and create close first what was open. `access` and `options` go to the platform as they are. A null root,
    // or a full path without a known hive in front of a backslash, gives 160 (ERROR_BAD_ARGUMENTS), untraced.
    DWORD Create(HKEY root, const std::wstring& subkey, REGSAM access, DWORD options = REG_OPTION_NON_VOLATILE);
    DWORD Create(const std::wstring& fullPath, REGSAM access, DWORD options = REG_OPTION_NON_VOLATILE);
    DWORD Open(HKEY root, const std::wstring& subkey, REGSAM access);
    DWORD Open(const RegistryKey& parent, const std::wstring& subkey, REGSAM access);
    DWORD Open(const std::wstring& fullPath, REGSAM access);
    void Close() noexcept;

    // Reads any value; see RegistryValue. Types other than 1, 2, 3, 4, 7 and 11 give 0 and an empty record.
    DWORD ReadValue(const std::wstring& valueName, RegistryValue& out);
    // Reads REG_SZ or REG_EXPAND_SZ (not expanded); another type gives 13 (ERROR_INVALID_DATA). `out` holds the default
    // unless 0 is returned. The last character is taken for the terminator and dropped, whatever it is.
    DWORD ReadString(const std::wstring& valueName, std::wstring& out, const std::wstring& defaultValue = {});
    // Reads 4 bytes into `out`, which holds the default if there is no value. The type is not looked at.
    DWORD ReadDword(const std::wstring& valueName, std::uint32_t& out, std::uint32_t defaultValue = 0);
    // The same for an enumeration or bit mask that is kept as a DWORD.
    template <class Enum>
        requires std::is_enum_v<Enum>
    DWORD ReadEnum(const std::wstring& valueName, Enum& out, Enum defaultValue)
    {
        auto number = static_cast<std::uint32_t>(defaultValue);
        const DWORD code = ReadEnumNumber(valueName, number);
        out = static_cast<Enum>(number);
        return code;
    }

    DWORD WriteString(const std::wstring& valueName, const std::wstring& text);
    DWORD WriteDword(const std::wstring& valueName, std::uint32_t number);
    DWORD WriteBinary(const std::wstring& valueName, const void* data, std::uint32_t size);
    DWORD DeleteValue(const std::wstring& valueName);
    // One subkey without subkeys of its own.
    DWORD DeleteKey(const std::wstring& subkey);
    // A subkey with all below it.
    DWORD DeleteTree(const std::wstring& subkey);

    // The subkey at `index`. Enumerations begin at index 0, which measures the names. 259 (ERROR_NO_MORE_ITEMS) at the
    // end.
    DWORD EnumSubkey(DWORD index, std::wstring& subkey, FILETIME& lastWrite);

    // Has `event` signalled at the next change, once. Returns at once.
    DWORD NotifyChange(bool watchSubtree, DWORD filter, HANDLE event);

    [[nodiscard]] HKEY Handle() const noexcept { return handle; }
    [[nodiscard]] bool IsOpen() const noexcept { return handle != nullptr; }
    // "HKLM\Software\..." of the key last asked for; empty when closed.
    [[nodiscard]] const std::wstring& Name() const noexcept { return name; }

    // "HKCR", "HKCU", "HKLM" or "HKU"; empty for any other root.
    [[nodiscard]] static std::wstring_view HivePrefix(HKEY root) noexcept;
    // The root that a hive name of a full path stands for (exact text), or null.
    [[nodiscard]] static HKEY RootFromHiveName(std::wstring_view hiveName);

private:
    DWORD CreateAt(HKEY root, std::wstring displayName, std::wstring subkey, REGSAM access, DWORD options);
    DWORD OpenAt(HKEY root, std::wstring displayName, std::wstring subkey, REGSAM access);
    DWORD ReadEnumNumber(const std::wstring& valueName, std::uint32_t& number);
    DWORD ReportValue(DWORD code, std::wstring_view format, const std::wstring& valueName) const;
    std::byte* ValueBuffer(std::uint32_t size);

    HKEY handle = nullptr;
    std::wstring name;
    bool report;
    std::uint32_t longestSubkeyName = 0; // characters, with the terminator
    std::uint32_t valueBufferSize = 0;
    std::unique_ptr<wchar_t[]> subkeyNameBuffer;
    std::unique_ptr<std::byte[]> valueBuffer;
};

// A string value of a key below HKEY_LOCAL_MACHINE, opened with KEY_READ; the default if that fails.
[[nodiscard]] std::wstring ReadHklmString(const std::wstring& subkey, const std::wstring& valueName,
                                          const std::wstring& defaultValue);

// Fills `variant` (initialised here; the caller clears it) with an array of BSTRs. Left empty for an empty list.
void LoadVariantWithMultiSz(VARIANT* variant, const std::list<std::wstring>& strings);

// Traces one line for each element of such a variant.
void DisplayVariantArrayBstr(const VARIANT* variant);
