// The service proxy of the running service, on services that the test installs in its own Windows.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>
#include <winsvc.h>

#include <string>

#include "NetUtilities/Handles.h"
#include "tests/support/RunningService.h"

namespace
{
class ServiceProxy : public RunningServiceTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RunningServiceTest::SetUp());
        ASSERT_NO_FATAL_FAILURE(Activate(CLSID_ServiceControlEx, services));
        manager = UniqueServiceHandle(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
        ASSERT_TRUE(static_cast<bool>(manager));
    }
    DWORD StartType(const wchar_t* name)
    {
        const UniqueServiceHandle opened(OpenServiceW(manager.get(), name, SERVICE_QUERY_CONFIG));
        alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192] = {};
        auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
        DWORD needed = 0;
        EXPECT_TRUE(QueryServiceConfigW(opened.get(), config, sizeof(buffer), &needed));
        return config->dwStartType;
    }
    HRESULT Set(const wchar_t* name, long mode, long startType)
    {
        return services->SetServiceMode(_bstr_t(name), mode, startType);
    }

    IServiceControlExPtr services;
    UniqueServiceHandle manager;
};

TEST_F(ServiceProxy, StartTypeZeroReturns122AndChangesNothing)
{
    ASSERT_EQ(0u, InstallService(L"PolicyAgent"));
    EXPECT_EQ(122, Set(L"PolicyAgent", 1, 0));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_DEMAND_START), StartType(L"PolicyAgent"));
}

TEST_F(ServiceProxy, ServiceOutsideTheListGetsItsStartTypeAndMinusOne)
{
    ASSERT_EQ(0u, InstallService(L"ProxyProbe"));
    EXPECT_EQ(-1, Set(L"ProxyProbe", 1, SERVICE_DISABLED));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_DISABLED), StartType(L"ProxyProbe"));
    EXPECT_EQ(-1, Set(L"ProxyProbe", 4, SERVICE_DEMAND_START));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_DEMAND_START), StartType(L"ProxyProbe"));
}

TEST_F(ServiceProxy, UnknownModeReturnsZeroAfterTheChange)
{
    ASSERT_EQ(0u, InstallService(L"ProxyProbe"));
    EXPECT_EQ(0, Set(L"ProxyProbe", 5, SERVICE_AUTO_START));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_AUTO_START), StartType(L"ProxyProbe"));
}

TEST_F(ServiceProxy, StopOfAServiceThatDoesNotRunReturnsZero)
{
    ASSERT_EQ(0u, InstallService(L"PolicyAgent"));
    EXPECT_EQ(0, Set(L"PolicyAgent", 1, -1));
    EXPECT_EQ(0, Set(L"PolicyAgent", 4, -1));
    EXPECT_EQ(static_cast<DWORD>(SERVICE_DEMAND_START), StartType(L"PolicyAgent"));
}

TEST_F(ServiceProxy, UnknownServiceReturnsTheManagersError)
{
    EXPECT_EQ(ERROR_SERVICE_DOES_NOT_EXIST, Set(L"NoSuchService", 1, -1));
    EXPECT_NE(0, services->SetServiceMode(nullptr, 1, -1));
    EXPECT_NE(0, Set(std::wstring(100'000, L'x').c_str(), 1, -1));
}

TEST_F(ServiceProxy, QueryFillsTheNumbersOfVariantsThatTheCallerTyped)
{
    // Late bound, where the caller's variants reach the service with their types.
    IDispatch* const dispatch = services;
    _variant_t mode(0L);
    _variant_t startType(0L);
    VARIANT arguments[3];
    arguments[2] = _variant_t(L"Halcyd").Detach();
    arguments[1].vt = VT_VARIANT | VT_BYREF;
    arguments[1].pvarVal = &mode;
    arguments[0].vt = VT_VARIANT | VT_BYREF;
    arguments[0].pvarVal = &startType;
    DISPPARAMS parameters{arguments, nullptr, 3, 0};
    _variant_t result;
    EXPECT_EQ(S_OK, dispatch->Invoke(2, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &parameters, &result, nullptr,
                                     nullptr));
    VariantClear(&arguments[2]);
    EXPECT_EQ(VT_I4, mode.vt);
    EXPECT_EQ(SERVICE_RUNNING, mode.lVal);
    EXPECT_EQ(SERVICE_AUTO_START, startType.lVal);
}

TEST_F(ServiceProxy, EveryVariantTypeInAQueryLeavesTheServiceAlive)
{
    for (int type = 0; type < 0x50; ++type)
    {
        for (const int flags : {0, 0x2000})
        {
            VARIANT mode{};
            VARIANT startType{};
            mode.vt = startType.vt = static_cast<VARTYPE>(type | flags);
            static_cast<void>(services->QueryServiceMode(_bstr_t(L"NoSuchService"), &mode, &startType));
        }
    }
    EXPECT_EQ(ERROR_SERVICE_DOES_NOT_EXIST, Set(L"NoSuchService", 1, -1));
}
} // namespace
