// INetCfgComponent and the binding paths below one.
#include "lab/netcfg/Enumerator.h"
#include "lab/netcfg/Objects.h"
#include "lab/state/Text.h"

#include <objbase.h>

namespace lab::netcfg
{

namespace
{

class ComponentObject final : public ComObject<INetCfgComponent, INetCfgComponentBindings>
{
public:
    ComponentObject(SharedSession session, SharedLock lock, std::size_t index)
        : m_session(std::move(session)), m_lock(std::move(lock)), m_index(index)
    {
    }

    // ---- INetCfgComponent ----

    STDMETHODIMP GetDisplayName(LPWSTR* text) override
    {
        return GiveText("INetCfgComponent::GetDisplayName", &Component::displayName, text);
    }
    STDMETHODIMP GetId(LPWSTR* text) override { return GiveText("INetCfgComponent::GetId", &Component::id, text); }
    STDMETHODIMP GetPnpDevNodeId(LPWSTR* text) override
    {
        return GiveText("INetCfgComponent::GetPnpDevNodeId", &Component::deviceId, text);
    }
    STDMETHODIMP GetInstanceGuid(GUID* guid) override
    {
        Call call{"INetCfgComponent::GetInstanceGuid"};
        std::string text;
        if (const HRESULT failed = Read(call, guid, &Component::guid, text); FAILED(failed))
        {
            return call.Result(failed);
        }
        return call.Result(CLSIDFromString(Wide(text).c_str(), guid));
    }
    STDMETHODIMP SetDisplayName(LPCWSTR) override { return E_NOTIMPL; }
    STDMETHODIMP GetHelpText(LPWSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP GetCharacteristics(LPDWORD) override { return E_NOTIMPL; }
    STDMETHODIMP GetClassGuid(GUID*) override { return E_NOTIMPL; }
    STDMETHODIMP GetBindName(LPWSTR*) override { return E_NOTIMPL; }
    STDMETHODIMP GetDeviceStatus(ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP OpenParamKey(HKEY*) override { return E_NOTIMPL; }
    STDMETHODIMP RaisePropertyUi(HWND, DWORD, IUnknown*) override { return E_NOTIMPL; }

    // ---- INetCfgComponentBindings ----

    STDMETHODIMP EnumBindingPaths(DWORD flags, IEnumNetCfgBindingPath** paths) override
    {
        Call call{"INetCfgComponentBindings::EnumBindingPaths"};
        call.Arg("flags", flags);
        if (paths == nullptr)
        {
            return call.Result(E_POINTER);
        }
        *paths = nullptr;
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return call.Result(NETCFG_E_NOT_INITIALIZED);
        }
        std::vector<std::size_t> found;
        for (std::size_t i = 0; i < m_session->model.paths.size(); ++i)
        {
            const Path& path = m_session->model.paths[i];
            const bool isBelow = path.owner == m_index;
            const bool isAbove =
                std::find(path.lower.begin(), path.lower.end(), std::optional{m_index}) != path.lower.end();
            if (((flags & EBP_BELOW) != 0 && isBelow) || ((flags & EBP_ABOVE) != 0 && isAbove))
            {
                found.push_back(i);
            }
        }
        call.Out("paths", found.size());
        *paths = MakePathEnumerator(m_session, m_lock, std::move(found));
        return call.Result(S_OK);
    }
    STDMETHODIMP BindTo(INetCfgComponent*) override { return E_NOTIMPL; }
    STDMETHODIMP UnbindFrom(INetCfgComponent*) override { return E_NOTIMPL; }
    STDMETHODIMP SupportsBindingInterface(DWORD, LPCWSTR) override { return E_NOTIMPL; }
    STDMETHODIMP IsBoundTo(INetCfgComponent*) override { return E_NOTIMPL; }
    STDMETHODIMP IsBindableTo(INetCfgComponent*) override { return E_NOTIMPL; }
    STDMETHODIMP MoveBefore(INetCfgBindingPath*, INetCfgBindingPath*) override { return E_NOTIMPL; }
    STDMETHODIMP MoveAfter(INetCfgBindingPath*, INetCfgBindingPath*) override { return E_NOTIMPL; }

private:
    HRESULT Read(Call& call, const void* target, std::string Component::* field, std::string& text)
    {
        if (target == nullptr)
        {
            return E_POINTER;
        }
        if (const auto code = call.Fault())
        {
            return static_cast<HRESULT>(*code);
        }
        const std::scoped_lock lock{m_session->mutex};
        if (!m_session->initialized)
        {
            return NETCFG_E_NOT_INITIALIZED;
        }
        text = m_session->model.components[m_index].*field;
        call.Out("value", text);
        return S_OK;
    }

    HRESULT GiveText(const char* name, std::string Component::* field, LPWSTR* target)
    {
        Call call{name};
        std::string text;
        if (const HRESULT failed = Read(call, target, field, text); FAILED(failed))
        {
            return call.Result(failed);
        }
        *target = TaskText(Wide(text));
        return call.Result(*target != nullptr ? S_OK : E_OUTOFMEMORY);
    }

    SharedSession m_session;
    SharedLock m_lock;
    std::size_t m_index;
};

} // namespace

INetCfgComponent* MakeComponent(SharedSession session, SharedLock lock, std::size_t index)
{
    return new ComponentObject{std::move(session), std::move(lock), index};
}

IEnumNetCfgBindingPath* MakePathEnumerator(SharedSession session, SharedLock lock, std::vector<std::size_t> paths)
{
    const std::size_t count = paths.size();
    return new Enumerator<IEnumNetCfgBindingPath, INetCfgBindingPath>{
        "IEnumNetCfgBindingPath::Next", "IEnumNetCfgBindingPath::Reset", count,
        [session = std::move(session), lock = std::move(lock), paths = std::move(paths)](std::size_t i)
        { return MakePath(session, lock, paths[i]); }};
}

} // namespace lab::netcfg
