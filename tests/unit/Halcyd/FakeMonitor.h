#pragma once
// Stands in for the monitor under its own class id: notes what the host asks of it.

#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>

#include "ComSupport/ComSupport.h"
#include "Halcyd_h.h"
#include "TestModule.h"

class FakeMonitor : public CComObjectRootEx<CComMultiThreadModel>,
                    public CComCoClass<FakeMonitor, &CLSID_NetMonSv>,
                    public IDispatchImpl<INetMonSv>
{
public:
    BEGIN_COM_MAP(FakeMonitor)
    COM_INTERFACE_ENTRY(INetMonSv)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()

    static inline std::atomic<int> closed{0};
    static inline std::atomic<int> reset{0};
    static inline std::atomic<int> restored{0};
    // Called inside the method, if set.
    static inline std::function<void()> onClose;
    static inline std::function<void()> onRestore;

    static void Forget()
    {
        closed = reset = restored = 0;
        onClose = nullptr;
        onRestore = nullptr;
    }

    STDMETHOD(Open)() override { return E_NOTIMPL; }
    STDMETHOD(Close)() override
    {
        ++closed;
        if (onClose)
        {
            onClose();
        }
        return E_FAIL; // the host does not look at it
    }
    STDMETHOD(get_FilterMask)(LONG*) override { return E_NOTIMPL; }
    STDMETHOD(put_FilterMask)(LONG) override { return E_NOTIMPL; }
    STDMETHOD(GetDeviceInfoList)(_DEVICE_ELEMENT**) override { return E_NOTIMPL; }
    STDMETHOD(StartNotificationProcessing)() override { return E_NOTIMPL; }
    STDMETHOD(StopNotificationProcessing)() override { return E_NOTIMPL; }
    STDMETHOD(WiFiSurvey)() override { return E_NOTIMPL; }
    STDMETHOD(DisableIpBindings)(BSTR, LONG) override { return E_NOTIMPL; }
    STDMETHOD(RestoreIpBindings)() override { return E_NOTIMPL; }
    STDMETHOD(ChangeMultiHomingPreferenceIfAllowed)(LONG) override { return E_NOTIMPL; }
    STDMETHOD(RestoreIpBindingsSync)() override
    {
        ++restored;
        if (onRestore)
        {
            onRestore();
        }
        return E_FAIL; // nor at this one
    }
    STDMETHOD(ResetSsidList)() override
    {
        ++reset;
        return S_OK;
    }
    STDMETHOD(IsOpen)(VARIANT_BOOL*) override { return E_NOTIMPL; }
};

// The fake monitor's class object for the life of this object.
class FakeMonitorRegistration
{
public:
    FakeMonitorRegistration()
    {
        EnsureTestModule();
        FakeMonitor::Forget();
        IUnknown* factory = nullptr;
        EXPECT_EQ(FakeMonitor::_ClassFactoryCreatorClass::CreateInstance(
                      reinterpret_cast<void*>(&FakeMonitor::_CreatorClass::CreateInstance), __uuidof(IUnknown),
                      reinterpret_cast<void**>(&factory)),
                  S_OK);
        EXPECT_EQ(CoRegisterClassObject(CLSID_NetMonSv, factory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE, &cookie),
                  S_OK);
        factory->Release();
    }
    ~FakeMonitorRegistration()
    {
        CoRevokeClassObject(cookie);
        FakeMonitor::Forget();
    }
    FakeMonitorRegistration(const FakeMonitorRegistration&) = delete;
    FakeMonitorRegistration& operator=(const FakeMonitorRegistration&) = delete;

private:
    DWORD cookie = 0;
};
