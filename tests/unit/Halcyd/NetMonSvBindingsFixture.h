#pragma once
// A monitor with one client, on a network configuration engine of the test's own and in virtual time: what the client's
// requests for multi-homing prevention do, and what its events tell.

#include <gtest/gtest.h>

#include <comdef.h>
#include <ocidl.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <vector>

#include "Halcyd/NetMonSv.h"
#include "NetUtilities/ComApartment.h"
#include "tests/unit/Halcyd/FakeNetCfg.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/SleepClock.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"

inline constexpr std::chrono::seconds BindingsPatience{30}; // only a hang waits that long

struct BindingsEvent
{
    std::optional<std::wstring> deviceId; // nothing for a null BSTR
    VARTYPE secondType = VT_EMPTY;
    HRESULT result = S_OK;
    int event = 0;
    std::wstring lockHolder; // of the engine when the event came
};

// A client's sink that notes the events and can call back into the monitor.
class BindingsSink : public IDispatch
{
public:
    explicit BindingsSink(FakeNetCfg& watched) : engine(watched)
    {
        static_cast<void>(CoCreateFreeThreadedMarshaler(this, &marshaler));
    }
    ~BindingsSink() { marshaler->Release(); }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        *out = nullptr;
        if (IsEqualIID(iid, IID_IMarshal))
        {
            return marshaler->QueryInterface(iid, out);
        }
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) || IsEqualIID(iid, DIID__INetMonSv))
        {
            *out = static_cast<IDispatch*>(this);
            return S_OK;
        }
        return E_NOINTERFACE;
    }
    // Lives as long as its fixture.
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS* arguments, VARIANT*, EXCEPINFO*,
                                     UINT*) override
    {
        BindingsEvent event;
        event.event = static_cast<int>(arguments->rgvarg[0].lVal);
        event.secondType = arguments->rgvarg[1].vt;
        event.result = arguments->rgvarg[1].lVal;
        if (arguments->rgvarg[2].bstrVal != nullptr)
        {
            event.deviceId = arguments->rgvarg[2].bstrVal;
        }
        event.lockHolder = engine.LockHolder();
        std::function<void(int)> hook;
        {
            const std::lock_guard guard(mutex);
            events.push_back(event);
            hook = onEvent;
            arrived.notify_all();
        }
        if (hook)
        {
            hook(event.event);
        }
        return S_OK;
    }

    // The event number `count`, waited for.
    BindingsEvent WaitFor(std::size_t count)
    {
        std::unique_lock lock(mutex);
        if (!arrived.wait_for(lock, BindingsPatience, [&] { return events.size() >= count; }))
        {
            ADD_FAILURE() << "event " << count << " did not come";
            return {};
        }
        return events[count - 1];
    }
    std::size_t Count()
    {
        const std::lock_guard guard(mutex);
        return events.size();
    }
    void OnEvent(std::function<void(int)> hook)
    {
        const std::lock_guard guard(mutex);
        onEvent = std::move(hook);
    }

private:
    FakeNetCfg& engine;
    IUnknown* marshaler = nullptr;
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<BindingsEvent> events;
    std::function<void(int)> onEvent;
};

class NetMonSvBindingsFixture : public testing::Test
{
protected:
    static constexpr const wchar_t* Us = L"Sorvane Configuration Service";
    static constexpr HRESULT LockedByOther = static_cast<HRESULT>(0x8004A024);
    static constexpr const wchar_t* Kept = L"{00000001-ABCD-1111-0102-030405060708}";

    NetMonSvBindingsFixture()
    {
        RemoveRecords();
        EnsureTestModule();
        CComObject<CNetMonSv>* made = nullptr;
        EXPECT_EQ(S_OK, CComCreator<CComObject<CNetMonSv>>::Make(nullptr, &made));
        made->AddRef();
        monitor = made;
        IConnectionPointContainer* container = nullptr;
        EXPECT_EQ(S_OK, monitor->QueryInterface(IID_IConnectionPointContainer, reinterpret_cast<void**>(&container)));
        IConnectionPoint* point = nullptr;
        EXPECT_EQ(S_OK, container->FindConnectionPoint(DIID__INetMonSv, &point));
        DWORD cookie = 0;
        EXPECT_EQ(S_OK, point->Advise(&sink, &cookie));
        point->Release();
        container->Release();
        kept = engine.AddComponent(L"tunnel", 1);
        card = engine.AddComponent(L"card", 2);
        keptPath = engine.AddPath(L"ms_tcpip", {kept});
        cardPath = engine.AddPath(L"ms_tcpip", {card});
    }
    ~NetMonSvBindingsFixture() override
    {
        monitor->Release();
        EXPECT_EQ(0, engine.LivingObjects());
        RemoveRecords();
    }
    static void RemoveRecords()
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\QRLS\\Sorvane\\AdapterControl\\MultiHomingPrevention");
    }
    // Calls DisableIpBindings on a thread of its own, as a client must.
    std::future<HRESULT> DisableOnAThread(LONG ppp = 0)
    {
        return std::async(std::launch::async,
                          [this, ppp]
                          {
                              const ComApartment apartment;
                              return monitor->DisableIpBindings(_bstr_t(Kept), ppp);
                          });
    }
    static bool IsOpen(std::future<HRESULT>& call)
    {
        return call.wait_for(std::chrono::seconds::zero()) == std::future_status::timeout;
    }
    static HRESULT Finish(std::future<HRESULT>& call)
    {
        if (call.wait_for(BindingsPatience) != std::future_status::ready)
        {
            ADD_FAILURE() << "the call does not come back";
            std::abort();
        }
        return call.get();
    }
    void WaitForTrace(const std::wstring& text)
    {
        for (int attempt = 0; attempt < 3000 && !trace.Has(text); ++attempt)
        {
            ::Sleep(1);
        }
        EXPECT_TRUE(trace.Has(text));
    }

    HookScope hooks;
    SleepClock clock;
    TraceLines trace;
    FakeNetCfg& engine = FakeNetCfg::Fresh();
    BindingsSink sink{engine};
    CComObject<CNetMonSv>* monitor = nullptr;
    std::shared_ptr<FakeComponent> kept;
    std::shared_ptr<FakeComponent> card;
    std::shared_ptr<FakePath> keptPath;
    std::shared_ptr<FakePath> cardPath;
};
