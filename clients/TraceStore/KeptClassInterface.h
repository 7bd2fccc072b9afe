#pragma once
// Keeps the interface of class objects known to COM while the trace service serves.
//
// A client lets go of the class object right behind its call to it, and with the last such reference the platform may
// take the interface down. Wine, which this runs under as well, waits there for the calls that are still under way, and
// misses one that ends in that very moment: it waits for ever, with a lock in hand that every activation needs. With an
// object marshalled that nobody can reach there is no last reference.

#include <windows.h>

#include <comdef.h>
#include <objbase.h>

class KeptClassInterface
{
public:
    // Without memory there is nothing kept: the service works all the same.
    KeptClassInterface() noexcept
    {
        if (SUCCEEDED(CreateStreamOnHGlobal(nullptr, TRUE, &stream)))
        {
            static_cast<void>(
                CoMarshalInterface(stream, IID_IClassFactory, &object, MSHCTX_LOCAL, nullptr, MSHLFLAGS_TABLESTRONG));
        }
    }
    ~KeptClassInterface()
    {
        if (stream != nullptr)
        {
            static_cast<void>(stream->Seek({}, STREAM_SEEK_SET, nullptr));
            static_cast<void>(CoReleaseMarshalData(stream));
        }
    }
    KeptClassInterface(const KeptClassInterface&) = delete;
    KeptClassInterface& operator=(const KeptClassInterface&) = delete;

private:
    // A class object by its word only. It is never called: nobody knows the way to it. It lives as long as the process.
    class Unreachable : public IUnknown
    {
    public:
        STDMETHODIMP QueryInterface(REFIID iid, void** result) noexcept override
        {
            const bool known = iid == IID_IUnknown || iid == IID_IClassFactory;
            *result = known ? this : nullptr;
            return known ? S_OK : E_NOINTERFACE;
        }
        STDMETHODIMP_(ULONG) AddRef() noexcept override { return 2; }
        STDMETHODIMP_(ULONG) Release() noexcept override { return 1; }
    };

    static inline Unreachable object;
    _com_ptr_t<_com_IIID<IStream, &IID_IStream>> stream;
};
