#pragma once

#include <windows.h>

#include <set>
#include <string>

#include "ComSupport/ComSupport.h"
#include "Halcyd_h.h"
#include "NetUtilities/RegistryKey.h"

// The registry on behalf of a client without rights: any value may be read; values and keys may be changed in the
// branches of the allow-list only (WriteAllowList.h). The allow-list is the whole protection: every local user can
// reach this object, and it works with the rights of the service.
//
// Every method returns a plain Windows error number in the HRESULT's place: 0 for success, 5 for a path outside the
// list, otherwise what the registry answered. Full paths start with a root's name in the exact spelling of
// RegistryKey ("HKEY_LOCAL_MACHINE\..." or "HKLM\..."); another spelling gives 160. BSTR arguments count up to their
// first NUL, null counts as empty.
//
// Single-threaded object model: one call at a time on one object. The list never changes after construction.
class CNetRegistry : public CComObjectRootEx<CComSingleThreadModel>,
                     public CComCoClass<CNetRegistry, &CLSID_NetRegistry>,
                     public IDispatchImpl<INetRegistry>
{
public:
    CNetRegistry();

    DECLARE_REGISTRY_RESOURCEID(102)
    BEGIN_COM_MAP(CNetRegistry)
    COM_INTERFACE_ENTRY(INetRegistry)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()

    // Type and data of a value: `pvType` becomes a VT_I4, `pvData` VT_BSTR, VT_I4, VT_UI8 or an array of VT_BSTR by the
    // registry's type. A type that is not carried leaves `pvData` as it came, with result 0. The allow-list is not
    // asked. Both variants are taken as empty: the caller clears what was in them. 87 for a null pointer.
    STDMETHODIMP QueryRegistry(BSTR bstrValue, BSTR bstrSubkey, VARIANT* pvType, VARIANT* pvData) noexcept override;

    // Writes a value and makes its key if that is missing. Types 1, 4, 7 (comma separated text) and 11; any other gives
    // 87, with the key made by then. A failing write of types 1, 4 and 11 still returns 0.
    STDMETHODIMP SetRegistry(BSTR bstrValue, BSTR bstrSubkey, VARIANT vType, VARIANT vData) noexcept override;

    // Tells the name cache service to read its settings again; does nothing from version 10 of the system on.
    STDMETHODIMP RefreshDNSCache() noexcept override;

    // Deletes a value through a handle that is open for reading, which the system refuses: returns 5 in practice.
    STDMETHODIMP DeleteRegistry(BSTR bstrValue, BSTR bstrSubkey) noexcept override;

    // Deletes a key with everything below it.
    STDMETHODIMP DeleteRegistryNode(BSTR bstrNode) noexcept override;

    // True if `path` holds the text of one of the allowed branches.
    [[nodiscard]] bool IsWriteAllowed(const std::wstring& path) const;

private:
    DWORD Query(const std::wstring& valueName, const std::wstring& path, VARIANT& type, VARIANT& data);
    DWORD Set(const std::wstring& valueName, const std::wstring& path, const VARIANT& type, const VARIANT& data);
    DWORD Delete(const std::wstring& valueName, const std::wstring& path);
    DWORD DeleteNode(const std::wstring& node);

    std::set<std::wstring> allowedBranches;
};
