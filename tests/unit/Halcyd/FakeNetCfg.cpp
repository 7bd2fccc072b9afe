#include "tests/unit/Halcyd/FakeNetCfg.h"

#include <gtest/gtest.h>

#include <cwchar>

namespace
{
FakeNetCfg& Engine()
{
    static FakeNetCfg engine;
    return engine;
}

HRESULT NewText(const std::wstring& text, LPWSTR* out)
{
    const std::size_t bytes = (text.size() + 1) * sizeof(wchar_t);
    *out = static_cast<LPWSTR>(CoTaskMemAlloc(bytes));
    std::wcscpy(*out, text.c_str());
    return S_OK;
}

#define ENGINE_CALL(name)                                                                                              \
    HRESULT injected = S_OK;                                                                                           \
    if (Engine().Fails(name, injected))                                                                                \
    return injected

// Base of the engine's objects, with one or two interfaces.
template <class First, class Second = First>
class Object : public First
{
public:
    Object()
    {
        const std::lock_guard guard(Engine().mutex);
        ++Engine().living;
    }
    virtual ~Object()
    {
        const std::lock_guard guard(Engine().mutex);
        --Engine().living;
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        *out = nullptr;
        if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(First)))
        {
            *out = static_cast<First*>(this);
        }
        if (*out == nullptr)
        {
            return E_NOINTERFACE;
        }
        AddRef();
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return static_cast<ULONG>(InterlockedIncrement(&references)); }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const LONG left = InterlockedDecrement(&references);
        if (left == 0)
        {
            delete this;
        }
        return static_cast<ULONG>(left);
    }

private:
    LONG references = 1;
};

class Component : public Object<INetCfgComponent>
{
public:
    explicit Component(std::shared_ptr<FakeComponent> described) : component(std::move(described)) {}
    HRESULT STDMETHODCALLTYPE GetDisplayName(LPWSTR* out) override
    {
        ENGINE_CALL("INetCfgComponent::GetDisplayName");
        return NewText(component->displayName, out);
    }
    HRESULT STDMETHODCALLTYPE SetDisplayName(LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetHelpText(LPWSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetId(LPWSTR* out) override
    {
        ENGINE_CALL("INetCfgComponent::GetId");
        return NewText(component->id, out);
    }
    HRESULT STDMETHODCALLTYPE GetCharacteristics(LPDWORD) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetInstanceGuid(GUID* out) override
    {
        ENGINE_CALL("INetCfgComponent::GetInstanceGuid");
        *out = component->guid;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetPnpDevNodeId(LPWSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetClassGuid(GUID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetBindName(LPWSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetDeviceStatus(ULONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE OpenParamKey(HKEY*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE RaisePropertyUi(HWND, DWORD, IUnknown*) override { return E_NOTIMPL; }

private:
    std::shared_ptr<FakeComponent> component;
};

class BindingInterface : public Object<INetCfgBindingInterface>
{
public:
    explicit BindingInterface(std::shared_ptr<FakeComponent> described) : lower(std::move(described)) {}
    HRESULT STDMETHODCALLTYPE GetName(LPWSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetUpperComponent(INetCfgComponent**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetLowerComponent(INetCfgComponent** out) override
    {
        ENGINE_CALL("INetCfgBindingInterface::GetLowerComponent");
        *out = lower != nullptr ? new Component(lower) : nullptr;
        return lower != nullptr ? S_OK : E_FAIL;
    }

private:
    std::shared_ptr<FakeComponent> lower;
};

class InterfaceEnumerator : public Object<IEnumNetCfgBindingInterface>
{
public:
    explicit InterfaceEnumerator(std::vector<std::shared_ptr<FakeComponent>> all) : lowers(std::move(all)) {}
    HRESULT STDMETHODCALLTYPE Next(ULONG, INetCfgBindingInterface** out, ULONG* fetched) override
    {
        ENGINE_CALL("IEnumNetCfgBindingInterface::Next");
        *out = nullptr;
        *fetched = 0;
        if (position == lowers.size())
        {
            return S_FALSE;
        }
        *out = new BindingInterface(lowers[position++]);
        *fetched = 1;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Reset() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IEnumNetCfgBindingInterface**) override { return E_NOTIMPL; }

private:
    std::vector<std::shared_ptr<FakeComponent>> lowers;
    std::size_t position = 0;
};

class BindingPath : public Object<INetCfgBindingPath>
{
public:
    explicit BindingPath(std::shared_ptr<FakePath> described) : path(std::move(described)) {}
    HRESULT STDMETHODCALLTYPE IsSamePathAs(INetCfgBindingPath*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE IsSubPathOf(INetCfgBindingPath*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE IsEnabled() override
    {
        ENGINE_CALL("INetCfgBindingPath::IsEnabled");
        return path->enabled ? S_OK : S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE Enable(WINBOOL enable) override
    {
        ENGINE_CALL("INetCfgBindingPath::Enable");
        path->enabled = enable != FALSE;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetPathToken(LPWSTR*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetOwner(INetCfgComponent**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetDepth(ULONG*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EnumBindingInterfaces(IEnumNetCfgBindingInterface** out) override
    {
        ENGINE_CALL("INetCfgBindingPath::EnumBindingInterfaces");
        *out = new InterfaceEnumerator(path->lowers);
        return S_OK;
    }

private:
    std::shared_ptr<FakePath> path;
};

class PathEnumerator : public Object<IEnumNetCfgBindingPath>
{
public:
    explicit PathEnumerator(std::vector<std::shared_ptr<FakePath>> all) : paths(std::move(all)) {}
    HRESULT STDMETHODCALLTYPE Next(ULONG, INetCfgBindingPath** out, ULONG* fetched) override
    {
        ENGINE_CALL("IEnumNetCfgBindingPath::Next");
        *out = nullptr;
        *fetched = 0;
        if (position == paths.size())
        {
            return S_FALSE;
        }
        *out = new BindingPath(paths[position++]);
        *fetched = 1;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Skip(ULONG) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Reset() override
    {
        ENGINE_CALL("IEnumNetCfgBindingPath::Reset");
        position = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Clone(IEnumNetCfgBindingPath**) override { return E_NOTIMPL; }

private:
    std::vector<std::shared_ptr<FakePath>> paths;
    std::size_t position = 0;
};

// A protocol: the component and its bindings are one object.
class Protocol : public Component, public INetCfgComponentBindings
{
public:
    Protocol(const std::wstring& id, std::vector<std::shared_ptr<FakePath>> all)
        : Component(std::make_shared<FakeComponent>(FakeComponent{id, {}, L"Display of " + id})), paths(std::move(all))
    {
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (IsEqualIID(iid, __uuidof(INetCfgComponentBindings)))
        {
            ENGINE_CALL("INetCfgComponent::QueryInterface");
            *out = static_cast<INetCfgComponentBindings*>(this);
            AddRef();
            return S_OK;
        }
        return Component::QueryInterface(iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return Component::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return Component::Release(); }
    HRESULT STDMETHODCALLTYPE BindTo(INetCfgComponent*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE UnbindFrom(INetCfgComponent*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SupportsBindingInterface(DWORD, LPCWSTR) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE IsBoundTo(INetCfgComponent*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE IsBindableTo(INetCfgComponent*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EnumBindingPaths(DWORD flags, IEnumNetCfgBindingPath** out) override
    {
        ENGINE_CALL("INetCfgComponentBindings::EnumBindingPaths");
        if (flags != EBP_BELOW)
        {
            return E_INVALIDARG;
        }
        *out = new PathEnumerator(paths);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE MoveBefore(INetCfgBindingPath*, INetCfgBindingPath*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE MoveAfter(INetCfgBindingPath*, INetCfgBindingPath*) override { return E_NOTIMPL; }

private:
    std::vector<std::shared_ptr<FakePath>> paths;
};

// The engine and its lock are one object, as the lock lives and dies with the engine.
// It takes part in the Global Interface Table without proxies, as a free-threaded object does.
class Configuration : public Object<INetCfg>, public INetCfgLock
{
public:
    Configuration() { static_cast<void>(CoCreateFreeThreadedMarshaler(static_cast<INetCfg*>(this), &marshaler)); }
    ~Configuration() override
    {
        if (marshaler != nullptr)
        {
            marshaler->Release();
        }
        const std::lock_guard guard(Engine().mutex);
        if (ownsLock)
        {
            Engine().lockHolder.clear();
        }
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        if (IsEqualIID(iid, __uuidof(INetCfgLock)))
        {
            ENGINE_CALL("INetCfg::QueryInterface");
            *out = static_cast<INetCfgLock*>(this);
            AddRef();
            return S_OK;
        }
        if (IsEqualIID(iid, IID_IMarshal) && marshaler != nullptr)
        {
            return marshaler->QueryInterface(iid, out);
        }
        return Object<INetCfg>::QueryInterface(iid, out);
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return Object<INetCfg>::AddRef(); }
    ULONG STDMETHODCALLTYPE Release() override { return Object<INetCfg>::Release(); }

    HRESULT STDMETHODCALLTYPE Initialize(PVOID reserved) override
    {
        ENGINE_CALL("INetCfg::Initialize");
        const std::lock_guard guard(Engine().mutex);
        if (reserved != nullptr || initialized)
        {
            return NETCFG_E_ALREADY_INITIALIZED;
        }
        initialized = Engine().initialized = true;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Uninitialize() override
    {
        ENGINE_CALL("INetCfg::Uninitialize");
        const std::lock_guard guard(Engine().mutex);
        if (!initialized)
        {
            return NETCFG_E_NOT_INITIALIZED;
        }
        initialized = Engine().initialized = false;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Apply() override
    {
        ENGINE_CALL("INetCfg::Apply");
        const std::lock_guard guard(Engine().mutex);
        return ownsLock ? S_OK : NETCFG_E_NO_WRITE_LOCK;
    }
    HRESULT STDMETHODCALLTYPE Cancel() override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE EnumComponents(const GUID*, IEnumNetCfgComponent**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE FindComponent(LPCWSTR id, INetCfgComponent** out) override
    {
        ENGINE_CALL("INetCfg::FindComponent");
        const std::lock_guard guard(Engine().mutex);
        *out = nullptr;
        const auto found = Engine().protocols.find(id);
        if (!initialized || found == Engine().protocols.end())
        {
            return S_FALSE;
        }
        *out = new Protocol(id, found->second);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE QueryNetCfgClass(const GUID*, REFIID, void**) override { return E_NOTIMPL; }

    HRESULT STDMETHODCALLTYPE AcquireWriteLock(DWORD milliseconds, LPCWSTR client, LPWSTR* holder) override
    {
        ENGINE_CALL("INetCfgLock::AcquireWriteLock");
        const std::lock_guard guard(Engine().mutex);
        Engine().lockWait = milliseconds;
        if (holder != nullptr)
        {
            *holder = nullptr;
        }
        if (!Engine().lockHolder.empty())
        {
            return holder != nullptr ? (NewText(Engine().lockHolder, holder), S_FALSE) : S_FALSE;
        }
        Engine().lockHolder = client;
        ownsLock = true;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE ReleaseWriteLock() override
    {
        ENGINE_CALL("INetCfgLock::ReleaseWriteLock");
        const std::lock_guard guard(Engine().mutex);
        if (!ownsLock)
        {
            return S_FALSE;
        }
        ownsLock = false;
        Engine().lockHolder.clear();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE IsWriteLocked(LPWSTR* holder) override
    {
        ENGINE_CALL("INetCfgLock::IsWriteLocked");
        const std::lock_guard guard(Engine().mutex);
        *holder = nullptr;
        return Engine().lockHolder.empty() ? S_FALSE : NewText(Engine().lockHolder, holder);
    }

private:
    IUnknown* marshaler = nullptr;
    bool ownsLock = false;
    bool initialized = false;
};

class Factory : public IClassFactory
{
public:
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override
    {
        const bool known = IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IClassFactory);
        *out = known ? static_cast<IClassFactory*>(this) : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }
    HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown*, REFIID iid, void** out) override
    {
        *out = nullptr;
        ENGINE_CALL("CNetCfg::CreateInstance");
        auto* const made = new Configuration;
        const HRESULT result = made->QueryInterface(iid, out);
        made->Release();
        return result;
    }
    HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }
};
} // namespace

FakeNetCfg& FakeNetCfg::Fresh()
{
    static Factory factory;
    static const HRESULT registered = []
    {
        DWORD cookie = 0;
        return CoRegisterClassObject(CLSID_CNetCfg, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie);
    }();
    EXPECT_EQ(S_OK, registered);
    FakeNetCfg& engine = Engine();
    const std::lock_guard guard(engine.mutex);
    engine.protocols = {{L"ms_tcpip6", {}}, {L"ms_tcpip", {}}, {L"ms_ndiswan", {}}};
    engine.lockHolder.clear();
    engine.initialized = false;
    engine.lockWait = 0;
    engine.calls.clear();
    engine.order.clear();
    engine.failures.clear();
    engine.hooks.clear();
    return engine;
}

std::shared_ptr<FakeComponent> FakeNetCfg::AddComponent(const std::wstring& id, std::uint32_t number,
                                                        const std::wstring& displayName)
{
    auto component = std::make_shared<FakeComponent>();
    component->id = id;
    component->guid = {number, 0xABCD, 0x1111, {1, 2, 3, 4, 5, 6, 7, 8}};
    component->displayName = displayName;
    return component;
}

std::shared_ptr<FakePath> FakeNetCfg::AddPath(const std::wstring& protocolId,
                                              std::vector<std::shared_ptr<FakeComponent>> lowers, bool enabled)
{
    auto path = std::make_shared<FakePath>();
    path->lowers = std::move(lowers);
    path->enabled = enabled;
    const std::lock_guard guard(mutex);
    protocols[protocolId].push_back(path);
    return path;
}

void FakeNetCfg::FailCall(const std::string& name, HRESULT result, int nth)
{
    const std::lock_guard guard(mutex);
    failures[name] = {calls[name] + nth, result};
}

void FakeNetCfg::OnCall(const std::string& name, std::function<void()> hook)
{
    const std::lock_guard guard(mutex);
    hooks[name] = std::move(hook);
}

int FakeNetCfg::Calls(const std::string& name)
{
    const std::lock_guard guard(mutex);
    return calls[name];
}

std::vector<std::string> FakeNetCfg::AllCalls()
{
    const std::lock_guard guard(mutex);
    return order;
}

std::wstring FakeNetCfg::LockHolder()
{
    const std::lock_guard guard(mutex);
    return lockHolder;
}

void FakeNetCfg::SetLockHolder(const std::wstring& holder)
{
    const std::lock_guard guard(mutex);
    lockHolder = holder;
}

bool FakeNetCfg::Initialized()
{
    const std::lock_guard guard(mutex);
    return initialized;
}

int FakeNetCfg::LivingObjects()
{
    const std::lock_guard guard(mutex);
    return living;
}

bool FakeNetCfg::Fails(const std::string& name, HRESULT& result)
{
    std::function<void()> hook;
    bool fails = false;
    {
        const std::lock_guard guard(mutex);
        const int number = ++calls[name];
        order.push_back(name);
        const auto failure = failures.find(name);
        fails = failure != failures.end() && failure->second.first == number;
        result = fails ? failure->second.second : S_OK;
        const auto found = hooks.find(name);
        hook = found != hooks.end() ? found->second : nullptr;
    }
    if (hook)
    {
        hook();
    }
    return fails;
}
