#include "Halcyd/MyComDynamicUnkArray.h"

#include "Halcyd/MonitorTrace.h"
#include "Halcyd_h.h"

#include <cstdint>
#include <limits>
#include <new>

MyComDynamicUnkArray::MyComDynamicUnkArray()
{
    const HRESULT result = interfaceTable.CreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER);
    if (FAILED(result))
    {
        MonitorTrace::FailureResult(result, L"CreateInstance Global Interface Table failed");
    }
}

MyComDynamicUnkArray::~MyComDynamicUnkArray()
{
    for (int index = 0; index < GetSize(); ++index)
    {
        RevokeSink(index);
    }
}

bool MyComDynamicUnkArray::Grow() noexcept
{
    constexpr int firstSize = 4;
    const int slotCount = GetSize();
    if (slotCount > std::numeric_limits<int>::max() / 2)
    {
        return false;
    }
    try
    {
        slots.resize(static_cast<std::size_t>(slotCount == 0 ? firstSize : slotCount * 2));
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
    return true;
}

DWORD MyComDynamicUnkArray::Add(IUnknown* sink)
{
    int index = 0;
    while (index < GetSize() && slots[static_cast<std::size_t>(index)] != nullptr)
    {
        ++index;
    }
    if (index == GetSize() && !Grow())
    {
        return 0;
    }
    slots[static_cast<std::size_t>(index)].Attach(sink);
    RegisterSink(sink, index);
    return static_cast<DWORD>(index) + 1;
}

void MyComDynamicUnkArray::RegisterSink(IUnknown* sink, int index)
{
    if (interfaceTable == nullptr || index >= MaximumSinks)
    {
        return;
    }
    IUnknown* events = nullptr;
    if (sink->QueryInterface(DIID__INetMonSv, reinterpret_cast<void**>(&events)) != S_OK)
    {
        return;
    }
    const IUnknownPtr owned(events, false);
    DWORD cookie = 0;
    if (SUCCEEDED(interfaceTable->RegisterInterfaceInGlobal(events, DIID__INetMonSv, &cookie)))
    {
        tableCookies[static_cast<std::size_t>(index)] = cookie;
    }
}

void MyComDynamicUnkArray::RevokeSink(int index) noexcept
{
    if (interfaceTable == nullptr || index >= MaximumSinks)
    {
        return;
    }
    DWORD& cookie = tableCookies[static_cast<std::size_t>(index)];
    if (cookie != 0)
    {
        interfaceTable->RevokeInterfaceFromGlobal(cookie);
        cookie = 0;
    }
}

BOOL MyComDynamicUnkArray::Remove(DWORD cookie)
{
    if (GetUnknown(cookie) == nullptr)
    {
        return FALSE;
    }
    static_cast<void>(slots[cookie - 1].Detach()); // the caller's from now on
    RevokeSink(static_cast<int>(cookie) - 1);
    return TRUE;
}

IUnknown* MyComDynamicUnkArray::GetUnknown(DWORD cookie) const noexcept
{
    if (cookie == 0 || cookie > slots.size())
    {
        return nullptr;
    }
    return slots[cookie - 1].GetInterfacePtr();
}

IUnknownPtr MyComDynamicUnkArray::GetAt(int index) const
{
    if (interfaceTable == nullptr || index < 0 || index >= MaximumSinks)
    {
        return {};
    }
    const DWORD cookie = tableCookies[static_cast<std::size_t>(index)];
    if (cookie == 0)
    {
        return {};
    }
    IUnknown* sink = nullptr;
    if (FAILED(interfaceTable->GetInterfaceFromGlobal(cookie, DIID__INetMonSv, reinterpret_cast<void**>(&sink))))
    {
        return {};
    }
    return {sink, false};
}
