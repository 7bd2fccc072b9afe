#include "ComSupport/Module.h"

#include "ComSupport/TypeLibrary.h"

CComModule* _pModule = nullptr;
GUID CComModule::m_libid = {};

HRESULT GetModulePath(HINSTANCE instance, wchar_t (&path)[MAX_PATH]) noexcept
{
    const DWORD length = ::GetModuleFileNameW(instance, path, MAX_PATH);
    if (length == 0)
    {
        return HRESULT_FROM_WIN32(::GetLastError());
    }
    if (length == MAX_PATH)
    {
        return HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER);
    }
    return S_OK;
}

HRESULT CComObjectMapEntry::RegisterClassObject(DWORD context, DWORD flags) noexcept
{
    if (getClassObject == nullptr)
    {
        return S_OK;
    }
    if (classObject == nullptr)
    {
        const HRESULT made = getClassObject(reinterpret_cast<void*>(createInstance), __uuidof(IUnknown),
                                            reinterpret_cast<void**>(&classObject));
        if (FAILED(made))
        {
            return made;
        }
    }
    return ::CoRegisterClassObject(*clsid, classObject, context, flags, &registration);
}

HRESULT CComObjectMapEntry::RevokeClassObject() noexcept
{
    if (registration == 0)
    {
        return S_OK;
    }
    const HRESULT status = ::CoRevokeClassObject(registration);
    if (SUCCEEDED(status))
    {
        registration = 0;
    }
    return status;
}

CComModule::CComModule() noexcept
{
    _pModule = this;
}

CComModule::~CComModule()
{
    Term();
    if (_pModule == this)
    {
        _pModule = nullptr;
    }
}

HRESULT CComModule::Init(CComObjectMapEntry* objectMap, HINSTANCE instance, const GUID* libraryId) noexcept
{
    if (libraryId != nullptr)
    {
        m_libid = *libraryId;
    }
    m_instance = instance;
    m_objectMap = objectMap;
    if (m_objectMap != nullptr)
    {
        for (CComObjectMapEntry* entry = m_objectMap; entry->clsid != nullptr; ++entry)
        {
            entry->objectMain(true);
        }
    }
    return S_OK;
}

void CComModule::Term() noexcept
{
    for (CComObjectMapEntry* entry = m_objectMap; entry != nullptr && entry->clsid != nullptr; ++entry)
    {
        if (entry->classObject != nullptr)
        {
            entry->classObject->Release();
        }
        entry->classObject = nullptr;
        entry->objectMain(false);
    }
    m_objectMap = nullptr;
    // Last: objects that went with their factories took their entries out of the table.
    if (IGlobalInterfaceTable* const table = m_interfaceTable.exchange(nullptr))
    {
        table->Release();
    }
}

HRESULT CComModule::GetGITPtr(IGlobalInterfaceTable** out) noexcept
{
    IGlobalInterfaceTable* table = m_interfaceTable.load();
    if (table == nullptr)
    {
        IGlobalInterfaceTable* made = nullptr;
        const HRESULT result = ::CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER,
                                                  __uuidof(IGlobalInterfaceTable), reinterpret_cast<void**>(&made));
        if (FAILED(result))
        {
            *out = nullptr;
            return result;
        }
        if (m_interfaceTable.compare_exchange_strong(table, made))
        {
            table = made;
        }
        else
        {
            made->Release(); // another thread was faster: `table` is its pointer now
        }
    }
    table->AddRef();
    *out = table;
    return S_OK;
}

LONG CComModule::Lock() noexcept
{
    return ::InterlockedIncrement(&m_lockCount);
}

LONG CComModule::Unlock() noexcept
{
    return ::InterlockedDecrement(&m_lockCount);
}

LONG CComModule::GetLockCount() const noexcept
{
    return __atomic_load_n(&m_lockCount, __ATOMIC_ACQUIRE);
}

HRESULT CComModule::RegisterClassObjects(DWORD context, DWORD flags) noexcept
{
    HRESULT status = S_OK;
    for (CComObjectMapEntry* entry = m_objectMap; entry->clsid != nullptr && status == S_OK; ++entry)
    {
        status = entry->RegisterClassObject(context, flags);
    }
    return status;
}

HRESULT CComModule::RevokeClassObjects() noexcept
{
    HRESULT status = S_OK;
    for (CComObjectMapEntry* entry = m_objectMap; entry->clsid != nullptr && status == S_OK; ++entry)
    {
        status = entry->RevokeClassObject();
    }
    return status;
}

HRESULT CComModule::ResumeClassObjects() noexcept
{
    return ::CoResumeClassObjects();
}

HRESULT CComModule::SuspendClassObjects() noexcept
{
    return ::CoSuspendClassObjects();
}

HRESULT CComModule::UpdateRegistryFromResource(UINT resource, BOOL registering) noexcept
{
    wchar_t path[MAX_PATH] = {};
    const HRESULT status = GetModulePath(m_instance, path);
    if (FAILED(status))
    {
        return status;
    }
    const bool isExecutable = m_instance == nullptr || m_instance == ::GetModuleHandleW(nullptr);
    return RunRegistryScript(path, isExecutable, resource, registering != FALSE);
}

HRESULT CComModule::RegisterServer(BOOL registerTypeLibrary) noexcept
{
    for (CComObjectMapEntry* entry = m_objectMap; entry->clsid != nullptr; ++entry)
    {
        const HRESULT status = entry->updateRegistry(TRUE);
        if (FAILED(status))
        {
            return status;
        }
        // No class of ours has categories, so the category step finds an empty map.
    }
    return registerTypeLibrary ? RegisterModuleTypeLibrary(m_instance) : S_OK;
}

HRESULT CComModule::UnregisterServer(BOOL unregisterTypeLibrary) noexcept
{
    for (CComObjectMapEntry* entry = m_objectMap; entry->clsid != nullptr; ++entry)
    {
        const HRESULT status = entry->updateRegistry(FALSE);
        if (FAILED(status))
        {
            return status;
        }
    }
    return unregisterTypeLibrary ? UnregisterModuleTypeLibrary(m_instance) : S_OK;
}
