// INetCfgBindingPath and its interfaces. Enable changes the session's copy; Apply brings it into the machine.
#include "lab/netcfg/Enumerator.h"
#include "lab/netcfg/Objects.h"
#include "lab/state/Text.h"

namespace lab::netcfg
{

namespace
{

class PathObject final : public ComObject<INetCfgBindingPath>
{
public:
    PathObject(SharedSession session, SharedLock lock, std::size_t index)
        : m_session(std::move(session)), m_lock(std::move(lock)), m_index(index),
          m_token(m_session->model.paths[index].token)
    {
    }

    STDMETHODIMP IsEnabled() override
    {
        Call call{"INetCfgBindingPath::IsEnabled"};
        call.Arg("path", m_token);
        if (const auto code = call.Fault(Wide(m_token).c_str()))
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        return call.Result(m_session->model.paths[m_index].enabled ? S_OK : S_FALSE);
    }

    STDMETHODIMP Enable(BOOL enable) override
    {
        Call call{"INetCfgBindingPath::Enable"};
        call.Arg("path", m_token).Arg("enable", enable != FALSE);
        if (const auto code = call.Fault(Wide(m_token).c_str()))
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
        m_session->model.paths[m_index].enabled = enable != FALSE;
        return call.Result(S_OK);
    }

    STDMETHODIMP EnumBindingInterfaces(IEnumNetCfgBindingInterface** interfaces) override
    {
        Call call{"INetCfgBindingPath::EnumBindingInterfaces"};
        call.Arg("path", m_token);
        if (interfaces == nullptr)
        {
            return call.Result(E_POINTER);
        }
        *interfaces = nullptr;
        if (const auto code = call.Fault(Wide(m_token).c_str()))
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        *interfaces = MakeInterfaceEnumerator(m_session, m_lock, m_index);
        return call.Result(S_OK);
    }

    STDMETHODIMP GetPathToken(LPWSTR* token) override
    {
        if (token == nullptr)
        {
            return E_POINTER;
        }
        *token = TaskText(Wide(m_token));
        return *token != nullptr ? S_OK : E_OUTOFMEMORY;
    }
    STDMETHODIMP GetOwner(INetCfgComponent** owner) override
    {
        if (owner == nullptr)
        {
            return E_POINTER;
        }
        *owner = MakeComponent(m_session, m_lock, m_session->model.paths[m_index].owner);
        return S_OK;
    }
    STDMETHODIMP GetDepth(ULONG* interfaces) override
    {
        if (interfaces == nullptr)
        {
            return E_POINTER;
        }
        *interfaces = static_cast<ULONG>(m_session->model.paths[m_index].lower.size());
        return S_OK;
    }
    STDMETHODIMP IsSamePathAs(INetCfgBindingPath* other) override
    {
        wchar_t* token = nullptr;
        if (other == nullptr || FAILED(other->GetPathToken(&token)))
        {
            return E_POINTER;
        }
        const bool same = Wide(m_token) == token;
        CoTaskMemFree(token);
        return same ? S_OK : S_FALSE;
    }
    STDMETHODIMP IsSubPathOf(INetCfgBindingPath*) override { return E_NOTIMPL; }

private:
    SharedSession m_session;
    SharedLock m_lock;
    std::size_t m_index;
    std::string m_token;
};

class InterfaceObject final : public ComObject<INetCfgBindingInterface>
{
public:
    InterfaceObject(SharedSession session, SharedLock lock, std::size_t path, std::size_t depth)
        : m_session(std::move(session)), m_lock(std::move(lock)), m_path(path), m_depth(depth)
    {
    }

    STDMETHODIMP GetLowerComponent(INetCfgComponent** component) override
    {
        Call call{"INetCfgBindingInterface::GetLowerComponent"};
        if (component == nullptr)
        {
            return call.Result(E_POINTER);
        }
        *component = nullptr;
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        const auto lower = m_session->model.paths[m_path].lower[m_depth];
        if (!lower)
        {
            return call.Result(E_FAIL);
        }
        *component = MakeComponent(m_session, m_lock, *lower);
        return call.Out("id", m_session->model.components[*lower].id).Result(S_OK);
    }
    STDMETHODIMP GetUpperComponent(INetCfgComponent**) override { return E_NOTIMPL; }
    STDMETHODIMP GetName(LPWSTR*) override { return E_NOTIMPL; }

private:
    SharedSession m_session;
    SharedLock m_lock;
    std::size_t m_path;
    std::size_t m_depth;
};

} // namespace

INetCfgBindingPath* MakePath(SharedSession session, SharedLock lock, std::size_t index)
{
    return new PathObject{std::move(session), std::move(lock), index};
}

IEnumNetCfgBindingInterface* MakeInterfaceEnumerator(SharedSession session, SharedLock lock, std::size_t path)
{
    const std::size_t count = session->model.paths[path].lower.size();
    return new Enumerator<IEnumNetCfgBindingInterface, INetCfgBindingInterface>{
        "IEnumNetCfgBindingInterface::Next", "IEnumNetCfgBindingInterface::Reset", count,
        [session, lock, path](std::size_t depth) -> INetCfgBindingInterface*
        { return new InterfaceObject{session, lock, path, depth}; }};
}

} // namespace lab::netcfg
