#include "clients/halcydctl/MonitorClient.h"

#include <utility>

#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/Installation.h"

namespace
{
constexpr DISPID AdapterChangeMember = 2;

void Activate(REFCLSID classId, bool mayStart, REFIID iid, void** object)
{
    const InstallationFacts facts = ReadInstallation();
    Failure obstacle;
    if (FindObstacle(facts, mayStart, obstacle))
    {
        throw obstacle;
    }
    const HRESULT result = CoCreateInstance(classId, nullptr, CLSCTX_LOCAL_SERVER, iid, object);
    if (FAILED(result))
    {
        throw Explain(L"Reaching the service", result, facts);
    }
}
} // namespace

template <class Pointer>
Pointer ActivateService(REFCLSID classId, bool mayStart)
{
    Pointer object;
    Activate(classId, mayStart, __uuidof(typename Pointer::Interface), reinterpret_cast<void**>(&object));
    return object;
}
template INetMonSvPtr ActivateService<INetMonSvPtr>(REFCLSID, bool);
template IDNSPtr ActivateService<IDNSPtr>(REFCLSID, bool);
template INetRegistryPtr ActivateService<INetRegistryPtr>(REFCLSID, bool);
template IServiceControlExPtr ActivateService<IServiceControlExPtr>(REFCLSID, bool);

void Check(HRESULT result, const wchar_t* action)
{
    if (FAILED(result))
    {
        throw Explain(action, result, ReadInstallation());
    }
}

void CheckOpened(HRESULT result)
{
    Check(result, L"Opening the monitor");
    constexpr HRESULT NoMemoryForSink = 14; // a plain Windows error number in the HRESULT's place
    if (result == NoMemoryForSink)
    {
        throw ExplainStatus(L"Opening the monitor", ERROR_OUTOFMEMORY);
    }
}

void EventQueue::Push(MonitorEvent event)
{
    {
        MutexLock lock(mutex);
        events.push_back(std::move(event));
    }
    SetEvent(available.get());
}

bool EventQueue::Pop(MonitorEvent& event)
{
    MutexLock lock(mutex);
    if (events.empty())
    {
        return false;
    }
    event = std::move(events.front());
    events.pop_front();
    return true;
}

HRESULT EventSink::QueryInterface(REFIID iid, void** object) noexcept
{
    if (object == nullptr)
    {
        return E_POINTER;
    }
    if (iid == __uuidof(IUnknown) || iid == __uuidof(IDispatch) || iid == __uuidof(_INetMonSv))
    {
        *object = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG EventSink::AddRef() noexcept
{
    return ++references;
}

ULONG EventSink::Release() noexcept
{
    const ULONG left = --references;
    if (left == 0)
    {
        delete this;
    }
    return left;
}

HRESULT EventSink::GetTypeInfoCount(UINT* count) noexcept
{
    if (count == nullptr)
    {
        return E_POINTER;
    }
    *count = 0;
    return S_OK;
}

HRESULT EventSink::GetTypeInfo(UINT, LCID, ITypeInfo** info) noexcept
{
    if (info != nullptr)
    {
        *info = nullptr;
    }
    return E_NOTIMPL;
}

HRESULT EventSink::GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) noexcept
{
    return E_NOTIMPL; // the service calls by number
}

HRESULT EventSink::Invoke(DISPID member, REFIID, LCID, WORD, DISPPARAMS* arguments, VARIANT*, EXCEPINFO*,
                          UINT*) noexcept
{
    if (member != AdapterChangeMember)
    {
        return S_OK; // the other members are declared and never called
    }
    try
    {
        MonitorEvent event;
        if (arguments == nullptr || !EventFromArguments(*arguments, event))
        {
            return DISP_E_TYPEMISMATCH;
        }
        queue.Push(std::move(event));
        return S_OK;
    }
    catch (...)
    {
        return E_OUTOFMEMORY;
    }
}

MonitorConnection::MonitorConnection(bool mayStart) : monitor(ActivateService<INetMonSvPtr>(CLSID_NetMonSv, mayStart))
{
}

MonitorConnection::~MonitorConnection()
{
    if (connectionPoint != nullptr && adviseCookie != 0)
    {
        connectionPoint->Unadvise(adviseCookie);
    }
    if (monitor != nullptr && opened)
    {
        monitor->Close();
    }
}

void MonitorConnection::Advise(EventQueue& queue)
{
    IConnectionPointContainerPtr container;
    Check(monitor->QueryInterface(__uuidof(IConnectionPointContainer), reinterpret_cast<void**>(&container)),
          L"Asking for events");
    Check(container->FindConnectionPoint(__uuidof(_INetMonSv), &connectionPoint), L"Asking for events");
    auto* const sink = new EventSink(queue);
    const HRESULT result = connectionPoint->Advise(sink, &adviseCookie);
    sink->Release(); // the connection holds it now
    Check(result, L"Asking for events");
}

void MonitorConnection::Open()
{
    // A failed Open counts as well, so it is taken back in any case.
    opened = true;
    CheckOpened(monitor->Open());
}

void MonitorConnection::StartNotifications()
{
    Check(monitor->StartNotificationProcessing(), L"Starting notifications");
}

bool MonitorConnection::IsOpen()
{
    VARIANT_BOOL open = VARIANT_FALSE;
    Check(monitor->IsOpen(&open), L"Asking whether the monitor is open");
    return open != VARIANT_FALSE;
}

std::vector<AdapterView> MonitorConnection::Adapters()
{
    UniqueDeviceList list;
    Check(monitor->GetDeviceInfoList(list.put()), L"Reading the adapter list");
    return ViewOf(list.get());
}

void MonitorConnection::Abandon() noexcept
{
    adviseCookie = 0;
    opened = false;
}
