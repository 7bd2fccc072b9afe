// Entry points of labnetcfg.dll. Registered under CNetCfg's class id.
#include "lab/netcfg/Objects.h"

#include <exception>

namespace
{

class Factory final : public lab::wmi::ComObject<IClassFactory>
{
public:
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID id, void** object) override
    {
        lab::Call call{"CNetCfg::CreateInstance"};
        if (object == nullptr)
        {
            return call.Result(E_POINTER);
        }
        *object = nullptr;
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        if (outer != nullptr)
        {
            return call.Result(static_cast<HRESULT>(CLASS_E_NOAGGREGATION));
        }
        const auto engine = lab::wmi::Reference<INetCfg>::Take(lab::netcfg::MakeEngine());
        return call.Result(engine->QueryInterface(id, object));
    }
    STDMETHODIMP LockServer(BOOL lock) override
    {
        lab::wmi::moduleReferences += lock ? 1 : -1;
        return S_OK;
    }
};

constexpr CLSID engineClass{0x5B035261, 0x40F9, 0x11D1, {0xAA, 0xEC, 0x00, 0x80, 0x5F, 0xC1, 0x27, 0x0E}};

} // namespace

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID id, REFIID interfaceId, void** object)
{
    if (!IsEqualCLSID(id, engineClass))
    {
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    try
    {
        const auto factory = lab::wmi::Reference<IClassFactory>::Take(new Factory);
        return factory->QueryInterface(interfaceId, object);
    }
    catch (const std::exception&)
    {
        return E_FAIL;
    }
}

// The write lock's thread watch runs in this module, so it stays.
extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return S_FALSE;
}
