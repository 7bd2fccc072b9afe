#include "Halcyd/MyComDynamicUnkArray.h"

#include "Halcyd/MonitorTrace.h"
#include "Halcyd_h.h"

#include <utility>

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

DWORD MyComDynamicUnkArray::Add(CComUniqueUnknown&& sink) noexcept
{
    IUnknown* const added = sink.get();
    const DWORD cookie = slots.Add(std::move(sink));
    if (cookie != 0)
    {
        RegisterSink(added, static_cast<int>(cookie) - 1);
    }
    return cookie;
}

void MyComDynamicUnkArray::RegisterSink(IUnknown* sink, int index) noexcept
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

CComUniqueUnknown MyComDynamicUnkArray::Remove(DWORD cookie) noexcept
{
    CComUniqueUnknown sink = slots.Remove(cookie);
    if (sink != nullptr)
    {
        RevokeSink(static_cast<int>(cookie) - 1);
    }
    return sink;
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
