#include "ComSupport/TypeLibrary.h"

#include "ComSupport/DispatchCall.h"
#include "ComSupport/Module.h"

#include <atomic>
#include <comdef.h>
#include <oleauto.h>
#include <string>

namespace
{

_COM_SMARTPTR_TYPEDEF(ITypeLib, __uuidof(ITypeLib));
_COM_SMARTPTR_TYPEDEF(ITypeInfo, __uuidof(ITypeInfo));

std::wstring FolderOf(const wchar_t* path)
{
    const std::wstring whole(path);
    const std::size_t end = whole.find_last_of(L"\\/");
    return end == std::wstring::npos ? std::wstring() : whole.substr(0, end);
}

// The library in the module's resources; `path` receives the module's path.
HRESULT LoadModuleTypeLibrary(HINSTANCE instance, wchar_t (&path)[MAX_PATH], ITypeLibPtr& library) noexcept
{
    const HRESULT status = GetModulePath(instance, path);
    return FAILED(status) ? status : ::LoadTypeLib(path, &library);
}

} // namespace

HRESULT RegisterModuleTypeLibrary(HINSTANCE instance) noexcept
{
    wchar_t path[MAX_PATH] = {};
    ITypeLibPtr library;
    const HRESULT status = LoadModuleTypeLibrary(instance, path, library);
    if (FAILED(status))
    {
        return status;
    }
    try
    {
        std::wstring folder = FolderOf(path);
        return ::RegisterTypeLib(library, path, folder.data());
    }
    catch (const std::bad_alloc&)
    {
        return E_OUTOFMEMORY;
    }
}

HRESULT UnregisterModuleTypeLibrary(HINSTANCE instance) noexcept
{
    wchar_t path[MAX_PATH] = {};
    ITypeLibPtr library;
    HRESULT status = LoadModuleTypeLibrary(instance, path, library);
    if (FAILED(status))
    {
        return status;
    }
    TLIBATTR* attributes = nullptr;
    status = library->GetLibAttr(&attributes);
    if (FAILED(status))
    {
        return status;
    }
    status = ::UnRegisterTypeLib(attributes->guid, attributes->wMajorVerNum, attributes->wMinorVerNum, attributes->lcid,
                                 attributes->syskind);
    library->ReleaseTLibAttr(attributes);
    return status;
}

HRESULT CComTypeInfoHolder::Load(LCID locale, ITypeInfo** result) const noexcept
{
    ITypeLibPtr library;
    HRESULT status = ::LoadRegTypeLib(m_library, m_major, m_minor, locale, &library);
    if (FAILED(status))
    {
        wchar_t path[MAX_PATH] = {};
        status = GetModulePath(_pModule != nullptr ? _pModule->GetModuleInstance() : nullptr, path);
        if (SUCCEEDED(status))
        {
            status = ::LoadTypeLibEx(path, REGKIND_NONE, &library);
        }
    }
    return FAILED(status) ? status : library->GetTypeInfoOfGuid(m_iid, result);
}

HRESULT CComTypeInfoHolder::EnsureLoaded(LCID locale) noexcept
{
    std::atomic_ref<ITypeInfo*> info(m_info);
    if (info.load(std::memory_order_acquire) != nullptr)
    {
        return S_OK;
    }
    ITypeInfoPtr loaded;
    const HRESULT status = Load(locale, &loaded);
    if (FAILED(status))
    {
        return status; // not kept: a library that is registered later is found then
    }
    ITypeInfo* none = nullptr;
    if (info.compare_exchange_strong(none, loaded.GetInterfacePtr(), std::memory_order_acq_rel))
    {
        loaded.Detach();
    }
    return S_OK;
}

HRESULT CComTypeInfoHolder::GetTypeInfo(UINT index, LCID locale, ITypeInfo** result) noexcept
{
    if (result == nullptr)
    {
        return E_POINTER;
    }
    *result = nullptr;
    if (index != 0)
    {
        return DISP_E_BADINDEX;
    }
    const HRESULT status = EnsureLoaded(locale);
    if (SUCCEEDED(status))
    {
        *result = m_info;
        m_info->AddRef();
    }
    return status;
}

HRESULT CComTypeInfoHolder::GetIDsOfNames(LCID locale, LPOLESTR* names, UINT count, DISPID* ids) noexcept
{
    const HRESULT status = EnsureLoaded(locale);
    return FAILED(status) ? status : m_info->GetIDsOfNames(names, count, ids);
}

HRESULT CComTypeInfoHolder::Invoke(IDispatch* object, DISPID id, LCID locale, WORD flags, DISPPARAMS* arguments,
                                   VARIANT* result, EXCEPINFO* exception, UINT* argumentError) noexcept
{
    HRESULT status = EnsureLoaded(locale);
    if (FAILED(status))
    {
        return status;
    }
    DispatchCall call(m_info, id, flags, arguments);
    if (call.HasTooManyArguments())
    {
        return DISP_E_BADPARAMCOUNT;
    }
    status = call.Prepare();
    return FAILED(status) ? status : m_info->Invoke(object, id, flags, arguments, result, exception, argumentError);
}
