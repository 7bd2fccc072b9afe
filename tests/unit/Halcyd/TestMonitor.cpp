#include "tests/unit/Halcyd/TestMonitor.h"

#include <gtest/gtest.h>

TestSink::TestSink()
{
    static_cast<void>(CoCreateFreeThreadedMarshaler(this, &marshaler));
}

TestSink::~TestSink()
{
    marshaler->Release();
}

HRESULT TestSink::QueryInterface(REFIID iid, void** out)
{
    *out = nullptr;
    if (IsEqualIID(iid, IID_IMarshal))
    {
        return marshaler->QueryInterface(iid, out);
    }
    if (IsEqualIID(iid, IID_IUnknown) || (offersDispatch && IsEqualIID(iid, IID_IDispatch)) ||
        (offersEvents && IsEqualIID(iid, DIID__INetMonSv)))
    {
        *out = static_cast<IDispatch*>(this);
        AddRef();
        return S_OK;
    }
    return E_NOINTERFACE;
}

HRESULT TestSink::Invoke(DISPID id, REFIID, LCID locale, WORD flags, DISPPARAMS* arguments, VARIANT* result, EXCEPINFO*,
                         UINT*)
{
    EXPECT_EQ(id, 2);
    EXPECT_EQ(locale, 1024u);
    EXPECT_EQ(flags, DISPATCH_METHOD);
    EXPECT_EQ(arguments->cArgs, 3u);
    EXPECT_EQ(arguments->cNamedArgs, 0u);
    ToldEvent told;
    const auto text = [](const VARIANT& value)
    {
        return value.bstrVal != nullptr ? std::optional(std::wstring(value.bstrVal, SysStringLen(value.bstrVal)))
                                        : std::nullopt;
    };
    EXPECT_EQ(arguments->rgvarg[2].vt, VT_BSTR);
    told.deviceId = text(arguments->rgvarg[2]);
    told.secondType = arguments->rgvarg[1].vt;
    if (told.secondType == VT_BSTR)
    {
        told.adjacentMac = text(arguments->rgvarg[1]);
    }
    else
    {
        told.number = arguments->rgvarg[1].lVal;
    }
    told.eventType = arguments->rgvarg[0].vt;
    told.event = arguments->rgvarg[0].intVal;
    {
        const std::lock_guard guard(mutex);
        events.push_back(told);
    }
    arrived.Set();
    if (onEvent)
    {
        onEvent(told);
    }
    if (resultCode != 0)
    {
        result->vt = VT_ERROR;
        result->scode = resultCode;
    }
    return invokeResult;
}

std::vector<ToldEvent> TestSink::Events()
{
    const std::lock_guard guard(mutex);
    return events;
}

bool TestSink::WaitForCount(std::size_t count, DWORD milliseconds)
{
    const std::uint64_t end = GetTickCount64() + milliseconds;
    while (Events().size() < count)
    {
        const std::uint64_t now = GetTickCount64();
        if (now >= end)
        {
            return false;
        }
        arrived.Wait(static_cast<DWORD>(end - now));
    }
    return true;
}

IConnectionPoint* EventPoint(CNetMonSv* monitor)
{
    IConnectionPoint* point = nullptr;
    EXPECT_EQ(static_cast<IConnectionPointContainer*>(monitor)->FindConnectionPoint(DIID__INetMonSv, &point), S_OK);
    return point;
}
