#include "Halcyd/NetRegistry.h"

#include <comdef.h>
#include <versionhelpers.h>

#include <cstring>
#include <list>

#include "Halcyd/MethodGuard.h"
#include "Halcyd/MultiStringBuffer.h"
#include "Halcyd/VariantPayload.h"
#include "Halcyd/WriteAllowList.h"
#include "NetUtilities/Handles.h"
#include "NetUtilities/Trace.h"

namespace
{
constexpr Log::Source Source = Log::Source::Registry;
constexpr unsigned ScopeFlag = 19;

// REG_SZ data as text: up to the first NUL, at most the whole value.
_bstr_t TextOfData(const RegistryValue& value)
{
    const std::size_t characters = value.size / sizeof(wchar_t);
    std::wstring text(characters, L'\0');
    if (characters != 0)
    {
        std::memcpy(text.data(), value.data.get(), characters * sizeof(wchar_t));
    }
    return _bstr_t(text.c_str());
}

// The first bytes of the data as a number; bytes that the value lacks are 0.
template <class Number>
Number NumberOfData(const RegistryValue& value)
{
    Number number = 0;
    if (value.size != 0)
    {
        std::memcpy(&number, value.data.get(), std::min<std::size_t>(value.size, sizeof(number)));
    }
    return number;
}

void LoadMultiString(const RegistryValue& value, VARIANT& data)
{
    const std::list<std::wstring> strings = ParseMultiString(value.Bytes());
    for (const std::wstring& text : strings)
    {
        LogFormat(Source, 4, L"{}", text);
    }
    LoadVariantWithMultiSz(&data, strings);
    if (!strings.empty() && (data.vt != (VT_ARRAY | VT_BSTR) || data.parray == nullptr))
    {
        VariantInit(&data);
        LogMessage(Source, 2, L"could not initialize safe array with multi string");
    }
}

// Comma separated text as REG_MULTI_SZ.
DWORD WriteMultiString(HKEY key, const std::wstring& valueName, const std::wstring& text)
{
    const MultiStringBuffer buffer = MakeMultiStringBuffer(text);
    if (buffer.bytes == nullptr)
    {
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    return static_cast<DWORD>(
        RegSetValueExW(key, valueName.c_str(), 0, REG_MULTI_SZ, buffer.bytes.get(), static_cast<DWORD>(buffer.size)));
}

bool SystemIsVersion10OrHigher()
{
    OSVERSIONINFOEXW version{};
    version.dwOSVersionInfoSize = sizeof(version);
    version.dwMajorVersion = 10;
    version.dwMinorVersion = 0;
    version.wServicePackMajor = 0;
    ULONGLONG condition = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    condition = VerSetConditionMask(condition, VER_MINORVERSION, VER_GREATER_EQUAL);
    condition = VerSetConditionMask(condition, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&version, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, condition) != FALSE;
}

HRESULT AsResult(DWORD code)
{
    return static_cast<HRESULT>(code);
}
} // namespace

CNetRegistry::CNetRegistry() : allowedBranches(WriteAllowList::Branches()) {}

bool CNetRegistry::IsWriteAllowed(const std::wstring& path) const
{
    return WriteAllowList::Allows(allowedBranches, path);
}

STDMETHODIMP CNetRegistry::QueryRegistry(BSTR bstrValue, BSTR bstrSubkey, VARIANT* pvType, VARIANT* pvData) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (pvType == nullptr || pvData == nullptr)
            {
                return AsResult(ERROR_INVALID_PARAMETER);
            }
            return AsResult(Query(TextOf(bstrValue), TextOf(bstrSubkey), *pvType, *pvData));
        });
}

DWORD CNetRegistry::Query(const std::wstring& valueName, const std::wstring& path, VARIANT& type, VARIANT& data)
{
    RegistryKey key;
    DWORD result = key.Open(path, KEY_READ);
    if (result != ERROR_SUCCESS)
    {
        LogErrorSource(Source, result, L"could not open {}", path);
        return result;
    }
    RegistryValue value;
    result = key.ReadValue(valueName, value);
    if (result != ERROR_SUCCESS)
    {
        LogErrorSource(Source, result, L"could not read {}\\{}", path, valueName);
        return result;
    }

    VariantInit(&type);
    type.vt = VT_I4;
    type.lVal = static_cast<LONG>(value.type);
    switch (value.type)
    {
    case REG_SZ:
    {
        _bstr_t text = TextOfData(value);
        if (text.GetBSTR() == nullptr)
        {
            text = L"";
        }
        VariantInit(&data);
        data.bstrVal = text.Detach();
        data.vt = VT_BSTR;
        break;
    }
    case REG_DWORD:
        VariantInit(&data);
        data.vt = VT_I4;
        data.lVal = NumberOfData<LONG>(value);
        break;
    case REG_MULTI_SZ:
        LoadMultiString(value, data);
        break;
    case REG_QWORD:
        VariantInit(&data);
        data.vt = VT_UI8;
        data.ullVal = NumberOfData<ULONGLONG>(value);
        break;
    default:
        LogFormat(Source, 3, L"Unhandled query registry type {}", value.type);
        break;
    }
    return ERROR_SUCCESS;
}

STDMETHODIMP CNetRegistry::SetRegistry(BSTR bstrValue, BSTR bstrSubkey, VARIANT vType, VARIANT vData) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            return AsResult(Set(TextOf(bstrValue), TextOf(bstrSubkey), vType, vData));
        });
}

DWORD CNetRegistry::Set(const std::wstring& valueName, const std::wstring& path, const VARIANT& type,
                        const VARIANT& data)
{
    if (!IsWriteAllowed(path))
    {
        LogFormat(Source, 2, L"Not allowed to write to '{}' branch", path);
        return ERROR_ACCESS_DENIED;
    }
    RegistryKey key;
    DWORD result = key.Create(path, KEY_WRITE);
    if (result != ERROR_SUCCESS)
    {
        return result;
    }

    const std::int32_t registryType = NumberOf(type);
    switch (registryType)
    {
    // Required: what the write of a text or number answers is dropped, so a failing one still returns 0. Clients were
    // made against that. Only a multi-string's answer counts.
    case REG_SZ:
        if (const std::optional<std::wstring> text = StringOf(data))
        {
            key.WriteString(valueName, *text);
        }
        else
        {
            result = ERROR_INVALID_PARAMETER;
        }
        break;
    case REG_DWORD:
        key.WriteDword(valueName, static_cast<std::uint32_t>(NumberOf(data)));
        break;
    case REG_MULTI_SZ:
        if (const std::optional<std::wstring> text = StringOf(data))
        {
            result = WriteMultiString(key.Handle(), valueName, *text);
        }
        else
        {
            result = ERROR_INVALID_PARAMETER;
        }
        break;
    case REG_QWORD:
    {
        const std::uint64_t number = LongNumberOf(data);
        BYTE bytes[sizeof(number)];
        std::memcpy(bytes, &number, sizeof(number));
        RegSetValueExW(key.Handle(), valueName.c_str(), 0, REG_QWORD, bytes, sizeof(bytes));
        break;
    }
    default:
        LogFormat(Source, 2, L"unhandled type ({} was passed in)", registryType);
        result = ERROR_INVALID_PARAMETER;
        break;
    }
    if (result != ERROR_SUCCESS)
    {
        LogErrorSource(Source, result, L"could not set {}\\{}", path, valueName);
    }
    return result;
}

STDMETHODIMP CNetRegistry::DeleteRegistry(BSTR bstrValue, BSTR bstrSubkey) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            return AsResult(Delete(TextOf(bstrValue), TextOf(bstrSubkey)));
        });
}

DWORD CNetRegistry::Delete(const std::wstring& valueName, const std::wstring& path)
{
    if (!IsWriteAllowed(path))
    {
        LogFormat(Source, 2, L"    not allowed to write to '{}' branch", path);
        return ERROR_ACCESS_DENIED;
    }
    RegistryKey key;
    // Required to be opened for reading only, though the system deletes values only through a handle with the right
    // to set them: the call is refused with 5, and clients must not begin to lose values that they never lost.
    DWORD result = key.Open(path, KEY_READ);
    if (result != ERROR_SUCCESS)
    {
        LogErrorSource(Source, result, L"could not open {}", path);
        return result;
    }
    result = key.DeleteValue(valueName);
    if (result != ERROR_SUCCESS)
    {
        LogErrorSource(Source, result, L"could not delete {}\\{}", path, valueName);
    }
    return result;
}

STDMETHODIMP CNetRegistry::DeleteRegistryNode(BSTR bstrNode) noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            return AsResult(DeleteNode(TextOf(bstrNode)));
        });
}

DWORD CNetRegistry::DeleteNode(const std::wstring& node)
{
    if (!IsWriteAllowed(node))
    {
        LogFormat(Source, 2, L"not allowed to write to '{}' branch", node);
        return ERROR_ACCESS_DENIED;
    }
    // The root keeps its backslash, as a full path without one names no root and is refused with 160.
    const FullPathParts parts = SplitFullPath(node);
    const std::wstring root = parts.valid ? std::wstring(parts.hive) + L"\\" : node;
    const std::wstring rest(parts.subkey);
    RegistryKey key;
    DWORD result = key.Open(root, KEY_READ);
    if (result != ERROR_SUCCESS)
    {
        LogErrorSource(Source, result, L"could not open '{}' path", root);
        return result;
    }
    result = key.DeleteTree(rest);
    if (result != ERROR_SUCCESS)
    {
        LogErrorSource(Source, result, L"could not delete {}", node);
        return result;
    }
    LogFormat(Source, 4, L"successfully deleted the key and subkeys for the node {}", node);
    return ERROR_SUCCESS;
}

STDMETHODIMP CNetRegistry::RefreshDNSCache() noexcept
{
    return GuardMethod(
        [&](const std::source_location& here)
        {
            const ScopeTrace scope{Source, ScopeFlag, 0, {}, here};
            if (SystemIsVersion10OrHigher())
            {
                return S_OK;
            }
            const auto fail = [](const wchar_t* text)
            {
                const DWORD error = GetLastError();
                LogErrorSource(Source, error, text);
                return AsResult(error);
            };
            const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
            if (!manager)
            {
                return fail(L"OpenSCManager() failed to get handle.");
            }
            const UniqueServiceHandle service(OpenServiceW(manager.get(), L"Dnscache", SERVICE_ALL_ACCESS));
            if (!service)
            {
                return fail(L"OpenService() failed to open service");
            }
            SERVICE_STATUS status{};
            if (ControlService(service.get(), SERVICE_CONTROL_PARAMCHANGE, &status) == FALSE)
            {
                return fail(L"ControlService() failed to control service");
            }
            return S_OK;
        });
}
