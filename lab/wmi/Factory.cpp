#include "lab/wmi/Factory.h"

#include "lab/wmi/Services.h"

namespace lab::wmi
{

const CLSID locatorClass{0x4590F811, 0x1D3A, 0x11D0, {0x89, 0x1F, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24}};

namespace
{

class Factory final : public ComObject<IClassFactory>
{
public:
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID id, void** object) override
    {
        Call call{"WbemLocator::CreateInstance"};
        if (object != nullptr)
        {
            *object = nullptr;
        }
        if (const auto code = call.Fault())
        {
            return call.Result(static_cast<HRESULT>(*code));
        }
        if (outer != nullptr)
        {
            return call.Result(CLASS_E_NOAGGREGATION);
        }
        const auto locator = Reference<Locator>::Take(new (std::nothrow) Locator);
        return call.Result(locator ? locator->QueryInterface(id, object) : E_OUTOFMEMORY);
    }
    STDMETHODIMP LockServer(BOOL lock) override
    {
        moduleReferences += lock != FALSE ? 1 : -1;
        return S_OK;
    }
};

} // namespace

IClassFactory* MakeFactory()
{
    return new Factory;
}

} // namespace lab::wmi
