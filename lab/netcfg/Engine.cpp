// INetCfg and its write lock: one object, as on the platform, with one reference count.
#include "lab/netcfg/Enumerator.h"
#include "lab/netcfg/Objects.h"
#include "lab/state/Text.h"

#include <objbase.h>

#include <cstring>

namespace lab::netcfg
{

wchar_t* TaskText(const std::wstring& text) noexcept
{
    const std::size_t bytes = (text.size() + 1) * sizeof(wchar_t);
    auto* const copy = static_cast<wchar_t*>(CoTaskMemAlloc(bytes));
    if (copy != nullptr)
    {
        std::memcpy(copy, text.c_str(), bytes);
    }
    return copy;
}

namespace
{

class Engine final : public ComObject<INetCfg, INetCfgLock>
{
public:
    // Any thread of the process may hold a pointer to the object itself: the Global Interface Table hands it on as it
    // is.
    Engine() { CoCreateFreeThreadedMarshaler(static_cast<INetCfg*>(this), &m_marshaler); }
    // The journal tells how many of the stand-in's objects in this process are left.
    ~Engine() override
    {
        m_marshaler->Release();
        Call call{"CNetCfg::Gone"};
        call.Out("objects", lab::wmi::moduleReferences.load() - 1).Result(S_OK);
    }

    STDMETHODIMP QueryInterface(REFIID id, void** object) override
    {
        if (object != nullptr && IsEqualIID(id, IID_IMarshal))
        {
            return m_marshaler->QueryInterface(id, object);
        }
        return ComObject::QueryInterface(id, object);
    }

    // ---- INetCfg ----

    STDMETHODIMP Initialize(void*) override
    {
        Call call{"INetCfg::Initialize"};
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (m_session->initialized)
        {
            return call.Result(NETCFG_E_ALREADY_INITIALIZED);
        }
        m_session->stored = ReadModel(*Machine::Attach().Snapshot());
        m_session->model = m_session->stored;
        m_session->initialized = true;
        return call.Result(S_OK);
    }

    // Changes that were not applied are gone.
    STDMETHODIMP Uninitialize() override
    {
        Call call{"INetCfg::Uninitialize"};
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        m_session->initialized = false;
        return call.Result(S_OK);
    }

    // A rule may give a success code too: then the changes are applied and the code comes back.
    STDMETHODIMP Apply() override
    {
        Call call{"INetCfg::Apply"};
        const auto code = call.Fault();
        if (code && FAILED(static_cast<HRESULT>(*code)))
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        if (!m_lock->IsMine())
        {
            return call.Result(NETCFG_E_NO_WRITE_LOCK);
        }
        const auto result =
            static_cast<HRESULT>(code ? static_cast<std::int32_t>(*code) : m_session->model.applyResult);
        if (SUCCEEDED(result))
        {
            Machine::Attach().Update([&](Json& state, Events&)
                                     { StoreChanges(state, m_session->stored, m_session->model); });
            m_session->stored = m_session->model;
        }
        return call.Result(result);
    }

    STDMETHODIMP Cancel() override
    {
        Call call{"INetCfg::Cancel"};
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        m_session->model = m_session->stored;
        return call.Result(S_OK);
    }

    STDMETHODIMP EnumComponents(const GUID*, IEnumNetCfgComponent**) override { return E_NOTIMPL; }
    STDMETHODIMP QueryNetCfgClass(const GUID*, REFIID, void**) override { return E_NOTIMPL; }

    // S_FALSE, and no component, for an id that the machine does not have.
    STDMETHODIMP FindComponent(LPCWSTR id, INetCfgComponent** component) override
    {
        Call call{"INetCfg::FindComponent"};
        call.Arg("id", id);
        if (component == nullptr || id == nullptr)
        {
            return call.Result(E_POINTER);
        }
        *component = nullptr;
        if (const auto code = call.Fault(id))
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        const auto found = m_session->model.FindById(Utf8(id));
        if (!found)
        {
            return call.Result(S_FALSE);
        }
        *component = MakeComponent(m_session, m_lock, *found);
        return call.Result(S_OK);
    }

    // ---- INetCfgLock ----

    STDMETHODIMP AcquireWriteLock(DWORD milliseconds, LPCWSTR name, LPWSTR* holder) override
    {
        Call call{"INetCfgLock::AcquireWriteLock"};
        call.Arg("milliseconds", milliseconds).Arg("name", name);
        if (holder != nullptr)
        {
            *holder = nullptr;
        }
        if (name == nullptr)
        {
            return call.Result(E_POINTER);
        }
        if (const auto code = call.Fault())
        {
            TellHolder(call, holder);
            return call.Result(static_cast<HRESULT>(*code));
        }
        {
            // The lock comes first, then Initialize.
            const std::scoped_lock lock{m_session->mutex};
            if (m_session->initialized)
            {
                return call.Result(NETCFG_E_ALREADY_INITIALIZED);
            }
        }
        if (m_lock->Acquire(name, milliseconds))
        {
            return call.Result(S_OK);
        }
        TellHolder(call, holder);
        return call.Result(S_FALSE);
    }

    STDMETHODIMP ReleaseWriteLock() override
    {
        Call call{"INetCfgLock::ReleaseWriteLock"};
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        if (!m_lock->IsMine())
        {
            return call.Result(NETCFG_E_NO_WRITE_LOCK);
        }
        m_lock->Release();
        return call.Result(S_OK);
    }

    STDMETHODIMP IsWriteLocked(LPWSTR* holder) override
    {
        Call call{"INetCfgLock::IsWriteLocked"};
        if (holder != nullptr)
        {
            *holder = nullptr;
        }
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        return call.Result(TellHolder(call, holder) ? S_OK : S_FALSE);
    }

private:
    static bool TellHolder(Call& call, LPWSTR* holder)
    {
        const auto name = WriteLock::Holder();
        if (name)
        {
            call.Out("holder", Utf8(*name));
            if (holder != nullptr)
            {
                *holder = TaskText(*name);
            }
        }
        return name.has_value();
    }

    IUnknown* m_marshaler = nullptr;
    SharedSession m_session = std::make_shared<Session>();
    SharedLock m_lock = std::make_shared<WriteLock>();
};

} // namespace

INetCfg* MakeEngine()
{
    return new Engine;
}

} // namespace lab::netcfg
