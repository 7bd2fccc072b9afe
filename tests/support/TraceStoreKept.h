#pragma once
// Keeps the trace store's process there while the service is stopped and started.

#include <windows.h>

#include <gtest/gtest.h>

#include <comdef.h>

#include "NetUtilities/TraceLogManager.h"

// A client of the trace store for the life of this object, to be made while the service runs. Without a client the
// store lingers for some seconds, which a fast clock makes short: a start that comes as it goes has no trace, and ends.
// Besides, Wine takes an interface down with the last reference, and waits for ever if the last call to it has not
// quite ended in that moment: a chance in some thousand at each activation. While these are held there is no last
// reference.
class TraceStoreKept
{
public:
    TraceStoreKept()
    {
        EXPECT_EQ(CoGetClassObject(CLSID_TraceLogManager, CLSCTX_LOCAL_SERVER, nullptr, IID_IClassFactory,
                                   reinterpret_cast<void**>(&factory)),
                  S_OK);
        if (factory != nullptr)
        {
            EXPECT_EQ(factory->CreateInstance(nullptr, IID_IUnknown, reinterpret_cast<void**>(&client)), S_OK);
        }
    }
    TraceStoreKept(const TraceStoreKept&) = delete;
    TraceStoreKept& operator=(const TraceStoreKept&) = delete;

private:
    _com_ptr_t<_com_IIID<IClassFactory, &IID_IClassFactory>> factory;
    _com_ptr_t<_com_IIID<IUnknown, &IID_IUnknown>> client;
};
