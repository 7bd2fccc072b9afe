#include "NetUtilities/RegistryKey.h"

#include <comdef.h>
#include <winreg.h>

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "NetUtilities/BstrText.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr unsigned DwordBits = 32;

std::wstring DisplayName(HKEY root, const std::wstring& subkey)
{
    return std::wstring(RegistryKey::HivePrefix(root)) + L"\\" + subkey;
}

bool IsOptionalAbsence(DWORD code) noexcept
{
    return code == ERROR_SUCCESS || code == ERROR_FILE_NOT_FOUND;
}

bool IsKnownType(DWORD type) noexcept
{
    switch (type)
    {
    case REG_SZ:
    case REG_EXPAND_SZ:
    case REG_BINARY:
    case REG_DWORD:
    case REG_MULTI_SZ:
    case REG_QWORD:
        return true;
    default:
        return false;
    }
}
} // namespace

void RegistryValue::Clear() noexcept
{
    name.clear();
    type = 0;
    data.reset();
    size = 0;
}

std::wstring_view RegistryKey::HivePrefix(HKEY root) noexcept
{
    if (root == HKEY_CLASSES_ROOT)
    {
        return L"HKCR";
    }
    if (root == HKEY_CURRENT_USER)
    {
        return L"HKCU";
    }
    if (root == HKEY_LOCAL_MACHINE)
    {
        return L"HKLM";
    }
    if (root == HKEY_USERS)
    {
        return L"HKU";
    }
    return {};
}

HKEY RegistryKey::RootFromHiveName(std::wstring_view hiveName)
{
    // Exact text, capitals and all. HKEY_USERS is not in it: nobody here opens that hive by full path.
    static const std::unordered_map<std::wstring_view, HKEY> hives = {
        {L"HKLM", HKEY_LOCAL_MACHINE}, {L"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
        {L"HKCU", HKEY_CURRENT_USER},  {L"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
        {L"HKCR", HKEY_CLASSES_ROOT},  {L"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
    };
    const auto found = hives.find(hiveName);
    return found != hives.end() ? found->second : nullptr;
}

DWORD RegistryKey::Create(HKEY root, const std::wstring& subkey, REGSAM access, DWORD options)
{
    return CreateAt(root, DisplayName(root, subkey), subkey, access, options);
}

DWORD RegistryKey::Create(const std::wstring& fullPath, REGSAM access, DWORD options)
{
    const FullPathParts parts = SplitFullPath(fullPath);
    return Create(parts.valid ? RootFromHiveName(parts.hive) : nullptr, std::wstring(parts.subkey), access, options);
}

// `subkey` is a copy in both: it may be a text of this object, which closing clears.
// NOLINTBEGIN(performance-unnecessary-value-param)
DWORD RegistryKey::CreateAt(HKEY root, std::wstring displayName, std::wstring subkey, REGSAM access, DWORD options)
{
    Close();
    if (root == nullptr)
    {
        return ERROR_BAD_ARGUMENTS;
    }
    name = std::move(displayName);
    HKEY opened = nullptr;
    const auto code = static_cast<DWORD>(
        RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, options, access, nullptr, &opened, nullptr));
    if (code == ERROR_SUCCESS)
    {
        handle = opened;
    }
    else if (!IsOptionalAbsence(code) && report)
    {
        LogError(code, L"RegCreateKeyEx {}", name);
    }
    return code;
}

DWORD RegistryKey::Open(HKEY root, const std::wstring& subkey, REGSAM access)
{
    return OpenAt(root, DisplayName(root, subkey), subkey, access);
}

DWORD RegistryKey::Open(const RegistryKey& parent, const std::wstring& subkey, REGSAM access)
{
    return OpenAt(parent.handle, parent.name + L"\\" + subkey, subkey, access);
}

DWORD RegistryKey::Open(const std::wstring& fullPath, REGSAM access)
{
    const FullPathParts parts = SplitFullPath(fullPath);
    return Open(parts.valid ? RootFromHiveName(parts.hive) : nullptr, std::wstring(parts.subkey), access);
}

DWORD RegistryKey::OpenAt(HKEY root, std::wstring displayName, std::wstring subkey, REGSAM access)
{
    // The parent may be this very object: its handle lives until the new one was asked for.
    const UniqueRegistryHandle previous(std::exchange(handle, nullptr));
    Close();
    if (root == nullptr)
    {
        return ERROR_BAD_ARGUMENTS;
    }
    name = std::move(displayName);
    HKEY opened = nullptr;
    const auto code = static_cast<DWORD>(RegOpenKeyExW(root, subkey.c_str(), 0, access, &opened));
    if (code == ERROR_SUCCESS)
    {
        handle = opened;
    }
    else if (!IsOptionalAbsence(code) && report)
    {
        LogError(code, L"RegOpenKeyEx {}", name);
    }
    return code;
}

// NOLINTEND(performance-unnecessary-value-param)

void RegistryKey::Close() noexcept
{
    const UniqueRegistryHandle closing(std::exchange(handle, nullptr));
    name.clear();
    valueBuffer.reset();
    valueBufferSize = 0;
    subkeyNameBuffer.reset();
    longestSubkeyName = 0;
}

std::byte* RegistryKey::ValueBuffer(std::uint32_t size)
{
    if (size > valueBufferSize)
    {
        valueBuffer = std::make_unique<std::byte[]>(size);
        valueBufferSize = size;
    }
    return valueBuffer.get();
}

// Traces a value's failure and hands its code on.
DWORD RegistryKey::ReportValue(DWORD code, std::wstring_view format, const std::wstring& valueName) const
{
    if (report)
    {
        LogError(code, format, name, valueName);
    }
    return code;
}

DWORD RegistryKey::ReadValue(const std::wstring& valueName, RegistryValue& out)
{
    out.Clear();
    DWORD type = 0;
    DWORD size = 0;
    auto code = static_cast<DWORD>(RegQueryValueExW(handle, valueName.c_str(), nullptr, &type, nullptr, &size));
    if (code != ERROR_SUCCESS)
    {
        return IsOptionalAbsence(code) || code == ERROR_MORE_DATA
                   ? code
                   : ReportValue(code, L"RegQueryValueEx read size {}\\{}", valueName);
    }
    std::byte* const buffer = ValueBuffer(size);
    code = static_cast<DWORD>(
        RegQueryValueExW(handle, valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(buffer), &size));
    if (code != ERROR_SUCCESS)
    {
        return IsOptionalAbsence(code) || code == ERROR_MORE_DATA
                   ? code
                   : ReportValue(code, L"RegQueryValueEx read value {}\\{}", valueName);
    }
    if (IsKnownType(type))
    {
        out.name = valueName;
        out.type = type;
        out.size = size;
        out.data = std::make_unique<std::byte[]>(size);
        std::copy_n(buffer, size, out.data.get());
    }
    return ERROR_SUCCESS; // other types too, with the record left empty: required
}

DWORD RegistryKey::ReadString(const std::wstring& valueName, std::wstring& out, const std::wstring& defaultValue)
{
    out = std::wstring(defaultValue);
    DWORD type = 0;
    DWORD size = 0;
    auto code = static_cast<DWORD>(RegQueryValueExW(handle, valueName.c_str(), nullptr, &type, nullptr, &size));
    if (code != ERROR_SUCCESS)
    {
        return IsOptionalAbsence(code) ? code
                                       : ReportValue(code, L"RegQueryValueEx get size read wstring {}\\{}", valueName);
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ)
    {
        return ERROR_INVALID_DATA;
    }
    if (size == 0)
    {
        out.clear();
        return ERROR_SUCCESS;
    }
    // Whole characters are taken; room for an odd byte at the end, so that such a value can be read at all.
    std::wstring text(size / sizeof(wchar_t) + 1, L'\0');
    code = static_cast<DWORD>(
        RegQueryValueExW(handle, valueName.c_str(), nullptr, &type, reinterpret_cast<BYTE*>(text.data()), &size));
    if (code != ERROR_SUCCESS)
    {
        return IsOptionalAbsence(code) ? code : ReportValue(code, L"RegQueryValueEx read wstring {}\\{}", valueName);
    }
    // Required: the last character is taken for the terminator and goes, even if it is a letter.
    text.resize(size / sizeof(wchar_t));
    if (!text.empty())
    {
        text.pop_back();
    }
    out = std::move(text);
    return ERROR_SUCCESS;
}

DWORD RegistryKey::ReadDword(const std::wstring& valueName, std::uint32_t& out, std::uint32_t defaultValue)
{
    out = defaultValue;
    DWORD size = sizeof(out);
    const auto code = static_cast<DWORD>(
        RegQueryValueExW(handle, valueName.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(&out), &size));
    if (!IsOptionalAbsence(code) && report)
    {
        LogError(code, L"RegQueryValueEx read DWORD{} {}\\{}", DwordBits, name, valueName);
    }
    return code;
}

DWORD RegistryKey::ReadEnumNumber(const std::wstring& valueName, std::uint32_t& number)
{
    DWORD size = sizeof(number);
    const auto code = static_cast<DWORD>(
        RegQueryValueExW(handle, valueName.c_str(), nullptr, nullptr, reinterpret_cast<BYTE*>(&number), &size));
    return IsOptionalAbsence(code) ? code : ReportValue(code, L"RegQueryValueEx read enum {}\\{}", valueName);
}

DWORD RegistryKey::WriteString(const std::wstring& valueName, const std::wstring& text)
{
    const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    const auto code = static_cast<DWORD>(
        RegSetValueExW(handle, valueName.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(text.c_str()), size));
    return code == ERROR_SUCCESS ? code : ReportValue(code, L"RegSetValueEx write wstring {}\\{}", valueName);
}

DWORD RegistryKey::WriteDword(const std::wstring& valueName, std::uint32_t number)
{
    const auto code = static_cast<DWORD>(RegSetValueExW(handle, valueName.c_str(), 0, REG_DWORD,
                                                        reinterpret_cast<const BYTE*>(&number), sizeof(number)));
    if (code != ERROR_SUCCESS && report)
    {
        LogError(code, L"RegSetValueEx write DWORD{} {}\\{}", DwordBits, name, valueName);
    }
    return code;
}

DWORD RegistryKey::WriteBinary(const std::wstring& valueName, const void* data, std::uint32_t size)
{
    const auto code = static_cast<DWORD>(
        RegSetValueExW(handle, valueName.c_str(), 0, REG_BINARY, static_cast<const BYTE*>(data), size));
    return code == ERROR_SUCCESS ? code : ReportValue(code, L"RegSetValueEx write BYTE {}\\{}", valueName);
}

DWORD RegistryKey::DeleteValue(const std::wstring& valueName)
{
    const auto code = static_cast<DWORD>(RegDeleteValueW(handle, valueName.c_str()));
    return code == ERROR_SUCCESS ? code : ReportValue(code, L"DeleteValue {}\\{}", valueName);
}

DWORD RegistryKey::DeleteKey(const std::wstring& subkey)
{
    const auto code = static_cast<DWORD>(RegDeleteKeyExW(handle, subkey.c_str(), 0, 0));
    return IsOptionalAbsence(code) ? code : ReportValue(code, L"RegDeleteKey {}\\{}", subkey);
}

DWORD RegistryKey::DeleteTree(const std::wstring& subkey)
{
    const auto code = static_cast<DWORD>(RegDeleteTreeW(handle, subkey.c_str()));
    return IsOptionalAbsence(code) ? code : ReportValue(code, L"RegDeleteTree {}\\{}", subkey);
}

DWORD RegistryKey::EnumSubkey(DWORD index, std::wstring& subkey, FILETIME& lastWrite)
{
    // Also when index 0 did not get that far: without a buffer every later call would fail, and a caller that goes on
    // until the end of the list would never see it.
    if (index == 0 || subkeyNameBuffer == nullptr)
    {
        DWORD longest = 0;
        const auto code = static_cast<DWORD>(RegQueryInfoKeyW(handle, nullptr, nullptr, nullptr, nullptr, &longest,
                                                              nullptr, nullptr, nullptr, nullptr, nullptr, nullptr));
        if (code != ERROR_SUCCESS)
        {
            return code;
        }
        longestSubkeyName = longest + 1;
        subkeyNameBuffer = std::make_unique<wchar_t[]>(longestSubkeyName);
    }
    DWORD length = longestSubkeyName;
    const auto code = static_cast<DWORD>(
        RegEnumKeyExW(handle, index, subkeyNameBuffer.get(), &length, nullptr, nullptr, nullptr, &lastWrite));
    if (code == ERROR_SUCCESS)
    {
        subkey.assign(subkeyNameBuffer.get(), length);
    }
    return code;
}

DWORD RegistryKey::NotifyChange(bool watchSubtree, DWORD filter, HANDLE event)
{
    const auto code = static_cast<DWORD>(RegNotifyChangeKeyValue(handle, watchSubtree, filter, event, TRUE));
    if (code != ERROR_SUCCESS && report)
    {
        LogError(code, L"NotifyChange {}", name);
    }
    return code;
}

std::wstring ReadHklmString(const std::wstring& subkey, const std::wstring& valueName, const std::wstring& defaultValue)
{
    RegistryKey key;
    std::wstring text = defaultValue;
    if (key.Open(HKEY_LOCAL_MACHINE, subkey, KEY_READ) == ERROR_SUCCESS)
    {
        key.ReadString(valueName, text, defaultValue);
    }
    return text;
}

void LoadVariantWithMultiSz(VARIANT* variant, const std::list<std::wstring>& strings)
{
    VariantInit(variant);
    if (strings.empty())
    {
        LogMessageDefault(4, L"the multi-string buffer has no data");
        return;
    }
    LogFormatDefault(4, L"the multi-string contains {} string(s)", strings.size());
    V_VT(variant) = VT_ARRAY | VT_BSTR;
    V_ARRAY(variant) = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(strings.size()));
    LONG index = 0;
    for (const std::wstring& text : strings)
    {
        // The array makes a copy of its own.
        _bstr_t element = CopyToBstr(text.c_str());
        const HRESULT result = element.GetBSTR() != nullptr
                                   ? SafeArrayPutElement(V_ARRAY(variant), &index, element.GetBSTR())
                                   : E_OUTOFMEMORY;
        if (SUCCEEDED(result))
        {
            LogFormatDefault(4, L"loaded {} into safearray", text);
        }
        else
        {
            LogFormatDefault(2, L"could not load {} into safearray", text);
        }
        ++index;
    }
}

void DisplayVariantArrayBstr(const VARIANT* variant)
{
    SAFEARRAY* const array = V_ARRAY(variant);
    if (SafeArrayGetDim(array) != 1)
    {
        LogMessageDefault(2, L"error, one-dimensional DNS safearray was not passed in");
        return;
    }
    LONG lower = 0;
    LONG upper = 0;
    if (FAILED(SafeArrayGetLBound(array, 1, &lower)))
    {
        LogMessageDefault(2, L"could not get lower bound for the DNS safearray");
        return;
    }
    if (FAILED(SafeArrayGetUBound(array, 1, &upper)))
    {
        LogMessageDefault(2, L"could not get upper bound for the DNS safearray");
        return;
    }
    BSTR* elements = nullptr;
    if (FAILED(SafeArrayAccessData(array, reinterpret_cast<void**>(&elements))))
    {
        LogMessageDefault(2, L"Could not access DNS safearray");
        return;
    }
    for (LONG index = lower; index <= upper; ++index)
    {
        LogFormatDefault(4, L"array[{}]\t:{}", index, TextOrEmpty(elements[index - lower]));
    }
    if (FAILED(SafeArrayUnaccessData(array)))
    {
        LogMessageDefault(2, L"Could not release safearray");
    }
}
