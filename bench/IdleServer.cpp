// The yardstick for start-up time and idle memory: a COM server that does nothing but be one. It takes the same
// road as the product (multithreaded apartment, process security, suspended class object, resume) and nothing else,
// so what the product costs above it is the product's own.
//
//   BenchIdleServer.exe            plain server: serves until its last object is released
//   BenchIdleServer.exe -service   the same as a Windows service named HalcydBenchIdle

#include <windows.h>

#include <oaidl.h>
#include <objbase.h>

#include <atomic>
#include <cwchar>

#include "bench/IdleServer.h"

namespace
{

HANDLE g_stop = nullptr;
SERVICE_STATUS_HANDLE g_statusHandle = nullptr;
bool g_isService = false;
std::atomic<long> g_objects{0};

void ReportState(DWORD state) noexcept
{
    SERVICE_STATUS status{};
    status.dwServiceType = SERVICE_WIN32_OWN_PROCESS;
    status.dwCurrentState = state;
    status.dwControlsAccepted = SERVICE_ACCEPT_STOP;
    SetServiceStatus(g_statusHandle, &status);
}

// An object that answers every Invoke with success: the yardstick of an event call.
class IdleObject final : public IDispatch
{
public:
    IdleObject() noexcept { ++g_objects; }

    STDMETHODIMP QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        *out = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch) ? this : nullptr;
        if (*out == nullptr)
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_references; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }
    STDMETHODIMP GetTypeInfoCount(UINT* count) override
    {
        *count = 0;
        return S_OK;
    }
    STDMETHODIMP GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    STDMETHODIMP GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return DISP_E_UNKNOWNNAME; }
    STDMETHODIMP Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override { return S_OK; }

private:
    ~IdleObject()
    {
        if (--g_objects == 0 && !g_isService)
            SetEvent(g_stop);
    }
    std::atomic<ULONG> m_references{1};
};

class IdleFactory final : public IClassFactory
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** out) override
    {
        if (out == nullptr)
            return E_POINTER;
        *out = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IClassFactory) ? this : nullptr;
        return *out != nullptr ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** out) override
    {
        if (outer != nullptr)
            return CLASS_E_NOAGGREGATION;
        auto* object = new IdleObject;
        const HRESULT result = object->QueryInterface(iid, out);
        object->Release();
        return result;
    }
    STDMETHODIMP LockServer(BOOL) override { return S_OK; }
};

void Serve()
{
    static IdleFactory factory;
    DWORD cookie = 0;
    CoRegisterClassObject(CLSID_BenchIdle, &factory, CLSCTX_LOCAL_SERVER, REGCLS_MULTIPLEUSE | REGCLS_SUSPENDED,
                          &cookie);
    CoResumeClassObjects();
    if (g_isService)
        ReportState(SERVICE_RUNNING);
    WaitForSingleObject(g_stop, INFINITE);
    CoSuspendClassObjects();
    CoRevokeClassObject(cookie);
}

DWORD WINAPI Handler(DWORD control, DWORD, void*, void*)
{
    if (control == SERVICE_CONTROL_STOP)
    {
        ReportState(SERVICE_STOP_PENDING);
        SetEvent(g_stop);
    }
    return NO_ERROR;
}

void WINAPI ServiceMain(DWORD, wchar_t**)
{
    g_statusHandle = RegisterServiceCtrlHandlerExW(BENCH_IDLE_SERVICE, Handler, nullptr);
    ReportState(SERVICE_START_PENDING);
    Serve();
    ReportState(SERVICE_STOPPED);
}

} // namespace

int WINAPI wWinMain(HINSTANCE, HINSTANCE, wchar_t* commandLine, int)
{
    g_isService = std::wcsstr(commandLine, L"-service") != nullptr;
    g_stop = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT, RPC_C_IMP_LEVEL_IMPERSONATE, nullptr,
                         EOAC_NONE, nullptr);
    if (g_isService)
    {
        wchar_t name[] = BENCH_IDLE_SERVICE;
        const SERVICE_TABLE_ENTRYW table[] = {{name, ServiceMain}, {nullptr, nullptr}};
        StartServiceCtrlDispatcherW(table);
    }
    else
    {
        Serve();
    }
    CoUninitialize();
    CloseHandle(g_stop);
    return 0;
}
