#include "tests/unit/Halcyd/LifecycleMonitor.h"

#include <gtest/gtest.h>

#include <thread>

#include "NetUtilities/TracedMutexLock.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
constexpr CLSID wbemLocatorClass = {0x4590F811, 0x1D3A, 0x11D0, {0x89, 0x1F, 0x00, 0xAA, 0x00, 0x4B, 0x2E, 0x24}};
} // namespace

WmiScope::WmiScope()
{
    EXPECT_EQ(CoRegisterClassObject(wbemLocatorClass, static_cast<IClassFactory*>(this), CLSCTX_INPROC_SERVER,
                                    REGCLS_MULTIPLEUSE, &cookie),
              S_OK);
}

WmiScope::~WmiScope()
{
    EXPECT_EQ(CoRevokeClassObject(cookie), S_OK);
}

HRESULT WmiScope::QueryInterface(REFIID iid, void** out)
{
    *out = nullptr;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(IClassFactory)))
    {
        *out = static_cast<IClassFactory*>(this);
    }
    else if (IsEqualIID(iid, __uuidof(IWbemLocator)))
    {
        *out = static_cast<IWbemLocator*>(this);
    }
    return *out != nullptr ? S_OK : E_NOINTERFACE;
}

HRESULT WmiScope::CreateInstance(IUnknown*, REFIID iid, void** out)
{
    *out = nullptr;
    if (FAILED(createResult))
    {
        return createResult;
    }
    ++created;
    return QueryInterface(iid, out);
}

HRESULT WmiScope::ConnectServer(const BSTR resource, const BSTR user, const BSTR password, const BSTR locale,
                                long flags, const BSTR authority, IWbemContext* context, IWbemServices** out)
{
    EXPECT_EQ(user, nullptr);
    EXPECT_EQ(password, nullptr);
    EXPECT_EQ(locale, nullptr);
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(authority, nullptr);
    EXPECT_EQ(context, nullptr);
    connects.emplace_back(resource);
    *out = nullptr;
    const int number = static_cast<int>(connects.size());
    if (number == failConnect)
    {
        return static_cast<HRESULT>(WBEM_E_INVALID_NAMESPACE);
    }
    if (number == emptyConnect)
    {
        return S_OK;
    }
    auto* const made = new SecuredNamespace;
    made->answer = [this](const std::wstring& query, ObjectList& objects)
    { return answer ? answer(query, objects) : S_OK; };
    made->blanketResult = number == failBlanket ? E_INVALIDARG : S_OK;
    namespaces.emplace_back(static_cast<IWbemServices*>(made));
    *out = made;
    (*out)->AddRef();
    return S_OK;
}

bool LifecycleMonitor::IsListFree()
{
    bool isFree = false;
    std::thread(
        [&]
        {
            const TracedMutexTryLock<RecursiveMutex> tried(deviceInfoListMutex, L"deviceInfoListMutex");
            isFree = tried.Owned();
        })
        .join();
    return isFree;
}

std::wstring FirstMissingInOrder(const std::vector<std::wstring>& wanted)
{
    const std::vector<std::wstring> lines = TraceLines::All();
    auto from = lines.begin();
    for (const std::wstring& text : wanted)
    {
        while (from != lines.end() && !from->starts_with(text))
        {
            ++from;
        }
        if (from == lines.end())
        {
            return text;
        }
        ++from;
    }
    return {};
}
