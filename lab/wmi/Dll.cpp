// Entry points of labwmi.dll. Registered by labctl under WbemLocator's class id.
#include "lab/wmi/Factory.h"

extern "C" HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID id, REFIID interfaceId, void** object)
{
    if (!IsEqualCLSID(id, lab::wmi::locatorClass))
    {
        return CLASS_E_CLASSNOTAVAILABLE;
    }
    try
    {
        const auto factory = lab::wmi::Reference<IClassFactory>::Take(lab::wmi::MakeFactory());
        return factory->QueryInterface(interfaceId, object);
    }
    catch (const std::exception&)
    {
        return E_FAIL;
    }
}

extern "C" HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return lab::wmi::moduleReferences == 0 ? S_OK : S_FALSE;
}
