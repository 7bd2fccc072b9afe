// The Global Interface Table as the program sees it: the platform's own, with journal and fault rules in front. It is
// no import but an object, so the one that CoCreateInstance gives is wrapped.
#include "lab/shims/Hooks.h"
#include "lab/shims/ImportTable.h"
#include "lab/shims/Shim.h"

#include <objbase.h>

#include <atomic>

namespace
{

using CreateFunction = decltype(&::CoCreateInstance);
CreateFunction originalCreate = nullptr;

class WatchedTable final : public IGlobalInterfaceTable
{
public:
    // Takes over the reference.
    explicit WatchedTable(IGlobalInterfaceTable* table) : m_table(table) {}

    STDMETHODIMP QueryInterface(REFIID id, void** object) override
    {
        if (object == nullptr)
            return E_POINTER;
        const bool known = IsEqualIID(id, IID_IUnknown) || IsEqualIID(id, IID_IGlobalInterfaceTable);
        *object = known ? static_cast<IGlobalInterfaceTable*>(this) : nullptr;
        if (known)
            AddRef();
        return known ? S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++m_count; }
    STDMETHODIMP_(ULONG) Release() override
    {
        const ULONG left = --m_count;
        if (left == 0)
            delete this;
        return left;
    }

    STDMETHODIMP RegisterInterfaceInGlobal(IUnknown* object, REFIID id, DWORD* cookie) override
    {
        lab::Call call{"IGlobalInterfaceTable::RegisterInterfaceInGlobal"};
        if (const auto code = call.Fault())
            return call.Result(static_cast<HRESULT>(*code));
        return call.Result(m_table->RegisterInterfaceInGlobal(object, id, cookie));
    }
    STDMETHODIMP RevokeInterfaceFromGlobal(DWORD cookie) override
    {
        lab::Call call{"IGlobalInterfaceTable::RevokeInterfaceFromGlobal"};
        if (const auto code = call.Fault())
            return call.Result(static_cast<HRESULT>(*code));
        return call.Result(m_table->RevokeInterfaceFromGlobal(cookie));
    }
    STDMETHODIMP GetInterfaceFromGlobal(DWORD cookie, REFIID id, void** object) override
    {
        lab::Call call{"IGlobalInterfaceTable::GetInterfaceFromGlobal"};
        if (const auto code = call.Fault())
        {
            *object = nullptr;
            return call.Result(static_cast<HRESULT>(*code));
        }
        return call.Result(m_table->GetInterfaceFromGlobal(cookie, id, object));
    }

private:
    ~WatchedTable() { m_table->Release(); }

    IGlobalInterfaceTable* const m_table;
    std::atomic<ULONG> m_count{1};
};

HRESULT WINAPI CreateInstance(REFCLSID classId, IUnknown* outer, DWORD context, REFIID id, void** object)
{
    const HRESULT result = originalCreate(classId, outer, context, id, object);
    if (SUCCEEDED(result) && IsEqualCLSID(classId, CLSID_StdGlobalInterfaceTable) &&
        IsEqualIID(id, IID_IGlobalInterfaceTable))
    {
        *object = static_cast<IGlobalInterfaceTable*>(new WatchedTable(static_cast<IGlobalInterfaceTable*>(*object)));
    }
    return result;
}

} // namespace

void lab::shim::HookInterfaceTable()
{
    originalCreate =
        reinterpret_cast<CreateFunction>(ReplaceImport("CoCreateInstance", reinterpret_cast<void*>(&CreateInstance)));
}
