// The interface of class objects stays known to the platform's COM for the life of the process.
//
// Wine takes an interface down when the last reference that any client has to an object of it goes, and waits for the
// calls to it that are still under way. A call that ends in that very moment is missed: the thread waits for ever with
// a lock in hand that every activation needs. A client does this at each activation, as it lets go of the class object
// right behind its call, and about one in some thousand hangs. So an object that nobody can reach is marshalled once,
// and no reference to a class object is the last one.
#include "lab/shims/Hooks.h"
#include "lab/shims/ImportTable.h"

#include <objbase.h>

namespace
{

decltype(&CoRegisterClassObject) g_original = nullptr;

// A class object by its word only. It is never called: nobody knows the way to it.
class Holder : public IUnknown
{
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) noexcept override
    {
        const bool known = iid == IID_IUnknown || iid == IID_IClassFactory;
        *object = known ? this : nullptr;
        return known ? S_OK : E_NOINTERFACE;
    }
    // For the life of the process.
    STDMETHODIMP_(ULONG) AddRef() noexcept override { return 2; }
    STDMETHODIMP_(ULONG) Release() noexcept override { return 1; }
};

void KeepInterface()
{
    static Holder holder;
    IStream* stream = nullptr;
    if (FAILED(CreateStreamOnHGlobal(nullptr, TRUE, &stream)))
        return;
    static_cast<void>(
        CoMarshalInterface(stream, IID_IClassFactory, &holder, MSHCTX_LOCAL, nullptr, MSHLFLAGS_TABLESTRONG));
    stream->Release();
}

HRESULT WINAPI RegisterClassObject(REFCLSID classId, IUnknown* factory, DWORD context, DWORD flags, DWORD* cookie)
{
    // The program's apartment is there by now, and no client yet.
    static const bool kept = (KeepInterface(), true);
    static_cast<void>(kept);
    return g_original(classId, factory, context, flags, cookie);
}

} // namespace

void lab::shim::HookClassObjects()
{
    g_original = reinterpret_cast<decltype(g_original)>(
        ReplaceImport("CoRegisterClassObject", reinterpret_cast<void*>(&RegisterClassObject)));
}
