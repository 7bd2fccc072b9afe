#include "ComSupport/ObjectRoot.h"

HRESULT ComInternalQueryInterface(void* object, const CComInterfaceEntry* entries, REFIID iid, void** result) noexcept
{
    if (result == nullptr)
    {
        return E_POINTER;
    }
    *result = nullptr;

    const CComInterfaceEntry* found = nullptr;
    if (::IsEqualIID(iid, __uuidof(IUnknown)))
    {
        found = entries;
    }
    else
    {
        for (const CComInterfaceEntry* entry = entries; entry->iid != nullptr; ++entry)
        {
            if (::IsEqualIID(iid, *entry->iid))
            {
                found = entry;
                break;
            }
        }
    }
    if (found == nullptr || found->fromObject == nullptr)
    {
        return E_NOINTERFACE;
    }

    IUnknown* const unknown = found->fromObject(object);
    unknown->AddRef();
    *result = unknown;
    return S_OK;
}
