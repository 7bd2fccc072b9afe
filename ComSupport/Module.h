#pragma once
// The module: the table of its COM classes, the class objects made from it, and the count of what keeps it alive.
//
// Life: Init once, then any of RegisterServer, UnregisterServer, UpdateRegistryFromResource, or RegisterClassObjects,
// ResumeClassObjects, SuspendClassObjects, RevokeClassObjects, then Term. One module per process; it has to be there
// before the first object is made. Lock, Unlock and GetLockCount may be called from any thread, all else from the
// thread that owns the module's phase.

#include "ComSupport/Registrar.h"
#include "ComSupport/Threading.h"

#include <objbase.h>

#include <atomic>

struct CComCategoryEntry;

using CComCreatorFunction = HRESULT(WINAPI*)(void* context, REFIID iid, void** result);

// One class of the module.
struct CComObjectMapEntry
{
    const CLSID* clsid;
    HRESULT(WINAPI* updateRegistry)(BOOL registering); // runs the class's registry script
    CComCreatorFunction getClassObject;                // makes the class factory; its context is createInstance
    CComCreatorFunction createInstance;                // makes an object; its context is the outer object
    IUnknown* classObject;                             // cached factory, owned from registration to Term
    DWORD registration;                                // registration cookie
    const wchar_t*(WINAPI* getObjectDescription)();
    const CComCategoryEntry*(WINAPI* getCategoryMap)();
    void(WINAPI* objectMain)(bool starting); // called with true by Init and with false by Term

    // Makes the factory, keeps it, and registers it with COM.
    [[nodiscard]] HRESULT RegisterClassObject(DWORD context, DWORD flags) noexcept;
    // Takes the registration back; the cached factory stays. S_OK when there is none.
    [[nodiscard]] HRESULT RevokeClassObject() noexcept;
};

// A row for a class derived from CComCoClass; the map ends with an empty row.
#define OBJECT_ENTRY(Clsid, Class)                                                                                     \
    {&Clsid,                                                                                                           \
     Class::UpdateRegistry,                                                                                            \
     Class::_ClassFactoryCreatorClass::CreateInstance,                                                                 \
     Class::_CreatorClass::CreateInstance,                                                                             \
     nullptr,                                                                                                          \
     0,                                                                                                                \
     Class::GetObjectDescription,                                                                                      \
     Class::GetCategoryMap,                                                                                            \
     Class::ObjectMain},
#define OBJECT_ENTRY_END() {nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr}

class CComModule
{
public:
    CComModule() noexcept;
    virtual ~CComModule();
    CComModule(const CComModule&) = delete;
    CComModule& operator=(const CComModule&) = delete;

    // Stores map and library id and calls each class's object-main function with true.
    HRESULT Init(CComObjectMapEntry* objectMap, HINSTANCE instance, const GUID* libraryId) noexcept;
    // Releases the cached factories, and calls each class's object-main function with false. Safe to call twice.
    void Term() noexcept;

    // The lock count: each object and each client's LockServer keep the module alive. Both return the new count.
    virtual LONG Lock() noexcept;
    virtual LONG Unlock() noexcept;
    [[nodiscard]] LONG GetLockCount() const noexcept;

    // Registers all class objects in map order; the first failure stops the walk and is returned.
    HRESULT RegisterClassObjects(DWORD context, DWORD flags) noexcept;
    // Revokes them in map order; the first failure stops the walk and is returned.
    HRESULT RevokeClassObjects() noexcept;
    static HRESULT ResumeClassObjects() noexcept;
    static HRESULT SuspendClassObjects() noexcept;

    // Runs the script of one REGISTRY resource with the tokens "Module" and "Module_Raw".
    HRESULT UpdateRegistryFromResource(UINT resource, BOOL registering) noexcept;
    // Each class's script in map order with its categories, then the type library if asked for. The first failure ends
    // it.
    HRESULT RegisterServer(BOOL registerTypeLibrary) noexcept;
    HRESULT UnregisterServer(BOOL unregisterTypeLibrary) noexcept;

    // The process's Global Interface Table, with a reference for the caller. The module keeps one of its own from the
    // first call to Term. Any thread in an apartment.
    HRESULT GetGITPtr(IGlobalInterfaceTable** out) noexcept;

    [[nodiscard]] HINSTANCE GetModuleInstance() const noexcept { return m_instance; }

    static GUID m_libid; // the module's type library

private:
    CComObjectMapEntry* m_objectMap = nullptr;
    HINSTANCE m_instance = nullptr;
    LONG m_lockCount = 0;
    std::atomic<IGlobalInterfaceTable*> m_interfaceTable{nullptr}; // owned
};

// Reads the module's path. 0x8007007A when it does not fit, the last error as an HRESULT when there is none.
[[nodiscard]] HRESULT GetModulePath(HINSTANCE instance, wchar_t (&path)[MAX_PATH]) noexcept;

// The process's module, set by its constructor and cleared by its destructor.
extern CComModule* _pModule;
