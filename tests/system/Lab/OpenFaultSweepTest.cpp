// Every platform call of Open failing in turn, on the shipped service: the result that is due, and after a Close the
// next Open works and finds the same adapters.

#include "Monitor/MonitorMachine.h"

namespace
{
struct Fault
{
    const wchar_t* call;
    int nth;
    const wchar_t* code;
    HRESULT open;
};

std::ostream& operator<<(std::ostream& out, const Fault& fault)
{
    for (const wchar_t* c = fault.call; *c != L'\0'; ++c)
    {
        out << static_cast<char>(*c);
    }
    return out << " number " << fault.nth;
}

class OpenFaultSweep : public MonitorTest
{
protected:
    void SetUp() override
    {
        MonitorTest::SetUp();
        Lab(L"hooks on");
        ASSERT_TRUE(service.StopAndWait());
        ASSERT_TRUE(service.StartAndWait());
    }

    // The ids of the adapters that an undisturbed Open finds; the monitor is closed again.
    static std::vector<OptionalText> CleanRound(const INetMonSvPtr& monitor)
    {
        EXPECT_EQ(monitor->Open(), S_OK);
        std::vector<OptionalText> ids;
        for (const AdapterRecord& record : ReadAdapterList(monitor))
        {
            ids.push_back(record.deviceId);
        }
        EXPECT_EQ(monitor->Close(), S_OK);
        return ids;
    }

    void Sweep(std::initializer_list<Fault> faults)
    {
        const INetMonSvPtr monitor = Monitor();
        const std::vector<OptionalText> usual = CleanRound(monitor);
        ASSERT_FALSE(usual.empty());
        for (const Fault& fault : faults)
        {
            SCOPED_TRACE(testing::Message() << fault);
            Lab(std::wstring(L"fail ") + fault.call + L" --nth " + std::to_wstring(fault.nth) + L" --code " +
                fault.code);
            EXPECT_EQ(monitor->Open(), fault.open);
            // A rule that nothing met would prove nothing.
            const std::string rules = Lab(L"fail list --json");
            EXPECT_EQ(rules.find("\"hits\":0"), std::string::npos) << rules;
            Lab(L"fail clear");
            EXPECT_EQ(monitor->Close(), S_OK);
            EXPECT_EQ(CleanRound(monitor), usual);
        }
    }
};

TEST_F(OpenFaultSweep, ConnectingToWmiFails)
{
    Sweep({{L"CoCreateInstance", 1, L"E_OUTOFMEMORY", E_FAIL},
           {L"WbemLocator::CreateInstance", 1, L"E_ACCESSDENIED", E_FAIL},
           {L"IWbemLocator::ConnectServer", 1, L"WBEM_E_INVALID_NAMESPACE", E_FAIL},
           {L"IWbemLocator::ConnectServer", 2, L"WBEM_E_ACCESS_DENIED", E_FAIL},
           {L"CoSetProxyBlanket", 1, L"E_INVALIDARG", E_FAIL},
           {L"CoSetProxyBlanket", 2, L"E_INVALIDARG", E_FAIL},
           {L"IWbemServices::ExecQuery", 1, L"WBEM_E_FAILED", E_FAIL},
           {L"IWbemServices::ExecQuery", 2, L"WBEM_E_FAILED", E_FAIL}});
}

// A timer on the process's default queue would outlive the list and find a freed element ten seconds later.
TEST_F(OpenFaultSweep, WithoutATimerQueueThereIsNoTimer)
{
    const INetMonSvPtr monitor = Monitor();
    Lab(L"journal --clear");
    Lab(L"fail CreateTimerQueue --code 8");
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(Lab(L"journal --count --call CreateTimerQueue"), "1\r\n");
    EXPECT_EQ(Lab(L"journal --count --call CreateTimerQueueTimer"), "0\r\n");
    EXPECT_EQ(monitor->Close(), S_OK);
}

TEST_F(OpenFaultSweep, WhatOpenDoesWithout)
{
    Sweep({{L"CreateToolhelp32Snapshot", 1, L"8", S_OK},
           {L"Process32FirstW", 1, L"18", S_OK},
           {L"CreateTimerQueue", 1, L"8", S_OK},
           {L"CreateTimerQueueTimer", 1, L"8", S_OK},
           {L"LoadLibraryW", 1, L"126", S_OK},
           {L"GetProcAddress", 1, L"127", S_OK},
           {L"CoInitializeEx", 1, L"0x80010106", S_OK},
           {L"NotifyUnicastIpAddressChange", 1, L"8", S_OK},
           {L"IWbemServices::ExecNotificationQueryAsync", 1, L"WBEM_E_ACCESS_DENIED", S_OK},
           {L"IWbemServices::ExecNotificationQueryAsync", 6, L"WBEM_E_ACCESS_DENIED", S_OK}});
}

TEST_F(OpenFaultSweep, AdapterDetailsThatCannotBeHad)
{
    Sweep({{L"IEnumWbemClassObject::Next", 1, L"WBEM_E_FAILED", S_OK},
           {L"IEnumWbemClassObject::Reset", 1, L"WBEM_E_INVALID_OPERATION", S_OK},
           {L"SendARP", 1, L"31", S_OK},
           {L"CreateFileW", 1, L"2", S_OK},
           {L"DeviceIoControl", 1, L"50", S_OK},
           {L"RegOpenKeyExW", 1, L"5", S_OK},
           {L"RegEnumKeyExW", 1, L"5", S_OK},
           {L"RegQueryValueExW", 1, L"2", S_OK}});
}

TEST_F(OpenFaultSweep, DeviceTreeThatDoesNotAnswer)
{
    Sweep({{L"SetupDiGetClassDevsW", 1, L"13", S_OK},
           {L"SetupDiEnumDeviceInfo", 1, L"13", S_OK},
           {L"SetupDiOpenDevRegKey", 1, L"5", S_OK},
           {L"SetupDiCreateDeviceInfoList", 1, L"8", S_OK},
           {L"SetupDiOpenDeviceInfoW", 1, L"13", S_OK},
           {L"CM_Locate_DevNodeW", 1, L"13", S_OK},
           {L"CM_Get_Parent", 1, L"19", S_OK},
           {L"CM_Get_Child", 1, L"19", S_OK},
           {L"CM_Get_Device_IDW", 1, L"19", S_OK},
           {L"CM_Get_DevNode_Status", 1, L"19", S_OK}});
}
} // namespace
