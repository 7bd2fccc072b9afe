#pragma once

#include <windows.h>
#include <winsvc.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "ComSupport/ComSupport.h"
#include "Halcyd_h.h"

// The dependents of a service that was stopped. Shared by everybody who looks at it, given back by LocalFree with the
// last of them; null when there is no valid list.
using ServiceList = std::shared_ptr<ENUM_SERVICE_STATUSW>;

// One of the two process-wide stop lists: filled by a stop, read by a later restart, whichever object is asked. It does
// not survive the process. No lock: list and count are each read and written as a whole, from any thread.
struct ServiceStopList
{
    std::atomic<ServiceList> list;
    std::atomic<DWORD> count{0};
};

// Stops, restarts and reconfigures system services for a client that may not.
//
// Methods return Windows error numbers in the HRESULT's place, 0 for success. Single-threaded object model: one call at
// a time on one object; a call lasts 0.5 s for each service stopped and up to about 5.5 s for each one started.
class CServiceControlEx : public CComObjectRootEx<CComSingleThreadModel>,
                          public CComCoClass<CServiceControlEx, &CLSID_ServiceControlEx>,
                          public IDispatchImpl<IServiceControlEx>
{
public:
    DECLARE_REGISTRY_RESOURCEID(103)
    BEGIN_COM_MAP(CServiceControlEx)
    COM_INTERFACE_ENTRY(IServiceControlEx)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()

    // Changes the start type (any Windows start type, or 0xFFFFFFFF for no change; 0 changes nothing at all and returns
    // 122), then acts: 1 stop with dependents, 2 pause, 3 continue, 4 and 16 start, others nothing. Stop and start are
    // for "PolicyAgent", "IkeExt" and "WZCSVC" only, others give -1 with the start type changed by then.
    STDMETHODIMP SetServiceMode(BSTR bstrService, LONG dwMode, LONG dwStartupState) noexcept override;

    // Current state and start type, written to the 32-bit values of the variants, whose types stay as the caller set
    // them. Both are written also after a failure, 0 where nothing was read. 87 for a null pointer.
    STDMETHODIMP QueryServiceMode(BSTR bstrService, VARIANT* pvMode, VARIANT* pvStartupState) noexcept override;

    // OpenService; when that is refused because the descriptor has no entry for the service account, the descriptor is
    // amended and the open tried once more. Null with the last error of the open. The caller closes the handle.
    [[nodiscard]] static SC_HANDLE MyOpenService(SC_HANDLE scm, const wchar_t* name, DWORD access);

    // Non-zero on success. `token` needs TOKEN_ADJUST_PRIVILEGES.
    [[nodiscard]] static int SetPrivilege(HANDLE token, const wchar_t* name, int enable);

    // The active dependents of `service`. Null and 0 when there are none. Returns 0 or the error.
    [[nodiscard]] static DWORD MyEnumDependentServices(SC_HANDLE scm, SC_HANDLE service, ServiceList& list,
                                                       DWORD& count);

    // Stops the `count` services of `list`, then `service`. Always 0.
    static DWORD MyStopServices(SC_HANDLE scm, SC_HANDLE service, const ServiceList& list, DWORD count);

    // Starts `service`, then those of `list` from the last to the first. A missing list with a count is passed over.
    // Returns 0, or 1460 if a service did not come up in time.
    [[nodiscard]] static DWORD MyRestartServices(SC_HANDLE scm, SC_HANDLE service, ServiceList list, DWORD count);

    // True if the service's descriptor lacks an entry for `entity`; false also when the descriptor cannot be read.
    [[nodiscard]] static bool CheckServiceSecurity(SC_HANDLE scm, const wchar_t* name, const wchar_t* entity);

    // Appends `sddl` to the service's DACL. Non-zero on success.
    [[nodiscard]] static int AmendServiceSecurity(SC_HANDLE scm, const wchar_t* name, const wchar_t* sddl);

    // The service's DACL as text. Returns 0 or the error.
    [[nodiscard]] static DWORD GetServiceSddl(SC_HANDLE scm, const wchar_t* name, std::wstring& out);

private:
    static DWORD UpdateService(SC_HANDLE scm, SC_HANDLE service, LONG mode, DWORD startupState);
    static DWORD StopByName(SC_HANDLE scm, SC_HANDLE service, const std::wstring& keyName);
    static DWORD StartByName(SC_HANDLE scm, SC_HANDLE service, const std::wstring& keyName);
    static DWORD ReadMode(const std::wstring& name, DWORD& mode, DWORD& startupState);

    static ServiceStopList ipSecList;
    static ServiceStopList wzcList;
};
