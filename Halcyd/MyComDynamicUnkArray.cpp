#include "Halcyd/MyComDynamicUnkArray.h"

#include "Halcyd/MonitorTrace.h"
#include "Halcyd_h.h"

#include <cstdint>
#include <cstdlib>
#include <limits>

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
    for (int index = 0; index < slotCount; ++index)
    {
        RevokeSink(index);
        if (slots[index] != nullptr)
        {
            slots[index]->Release();
        }
    }
    std::free(static_cast<void*>(slots));
}

bool MyComDynamicUnkArray::Grow() noexcept
{
    constexpr int firstSize = 4;
    if (slotCount > std::numeric_limits<int>::max() / 2)
    {
        return false;
    }
    const int newCount = slotCount == 0 ? firstSize : slotCount * 2;
    const std::size_t bytes = sizeof(IUnknown*) * static_cast<std::size_t>(newCount);
    auto* const grown = static_cast<IUnknown**>(std::realloc(static_cast<void*>(slots), bytes));
    if (grown == nullptr)
    {
        return false;
    }
    for (int index = slotCount; index < newCount; ++index)
    {
        grown[index] = nullptr;
    }
    slots = grown;
    slotCount = newCount;
    return true;
}

DWORD MyComDynamicUnkArray::Add(IUnknown* sink)
{
    int index = 0;
    while (index < slotCount && slots[index] != nullptr)
    {
        ++index;
    }
    if (index == slotCount && !Grow())
    {
        return 0;
    }
    slots[index] = sink;
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
    const int index = static_cast<int>(cookie) - 1;
    slots[index] = nullptr;
    RevokeSink(index);
    return TRUE;
}

IUnknown* MyComDynamicUnkArray::GetUnknown(DWORD cookie) const noexcept
{
    if (cookie == 0 || cookie > static_cast<DWORD>(slotCount))
    {
        return nullptr;
    }
    return slots[cookie - 1];
}

IUnknown* MyComDynamicUnkArray::GetAt(int index) const
{
    if (interfaceTable == nullptr || index < 0 || index >= MaximumSinks)
    {
        return nullptr;
    }
    const DWORD cookie = tableCookies[static_cast<std::size_t>(index)];
    if (cookie == 0)
    {
        return nullptr;
    }
    IUnknown* sink = nullptr;
    if (FAILED(interfaceTable->GetInterfaceFromGlobal(cookie, DIID__INetMonSv, reinterpret_cast<void**>(&sink))))
    {
        return nullptr;
    }
    return sink;
}
