// Every call that Open makes into WMI fails once: the stated result, the broken-open state, and a clean Open
// afterwards.

#include "Monitor/MonitorMachine.h"

namespace
{
struct Fault
{
    const wchar_t* call;
    int nth;
    HRESULT result; // of Open
    bool listIsComplete;
};

using OpenFaults = MonitorTest;

TEST_F(OpenFaults, EachFailingWmiCallGivesItsResultAndCloseLeadsBackToACleanOpen)
{
    const INetMonSvPtr monitor = Monitor();
    ASSERT_EQ(monitor->Open(), S_OK);
    const std::size_t adapters = ReadAdapterList(monitor).size();
    ASSERT_GT(adapters, 0u);
    ASSERT_EQ(monitor->Close(), S_OK);

    const Fault faults[] = {
        {L"IWbemLocator::ConnectServer", 1, E_FAIL, false},
        {L"IWbemLocator::ConnectServer", 2, E_FAIL, false},
        {L"IWbemServices::ExecQuery", 1, E_FAIL, false},
        {L"IWbemServices::ExecQuery", 2, E_FAIL, false},
        {L"IEnumWbemClassObject::Next", 1, S_OK, false},
        {L"IWbemServices::ExecNotificationQueryAsync", 1, S_OK, true},
        {L"IWbemServices::ExecNotificationQueryAsync", 6, S_OK, true},
    };
    for (const Fault& fault : faults)
    {
        SCOPED_TRACE(testing::Message() << fault.call << " number " << fault.nth);
        Lab(std::wstring(L"fail ") + fault.call + L" --nth " + std::to_wstring(fault.nth) + L" --code WBEM_E_FAILED");
        EXPECT_EQ(monitor->Open(), fault.result);
        VARIANT_BOOL open = VARIANT_FALSE;
        EXPECT_EQ(monitor->IsOpen(&open), S_OK);
        EXPECT_EQ(open, VARIANT_TRUE); // also after a failure
        Lab(L"fail clear");
        EXPECT_EQ(monitor->Open(), S_OK); // counts, and repairs nothing
        EXPECT_EQ(ReadAdapterList(monitor).size() == adapters, fault.listIsComplete);
        EXPECT_EQ(monitor->Close(), S_OK);
        EXPECT_EQ(monitor->Close(), S_OK);
        EXPECT_EQ(monitor->IsOpen(&open), S_OK);
        EXPECT_EQ(open, VARIANT_FALSE);
        EXPECT_EQ(monitor->Open(), S_OK);
        EXPECT_EQ(ReadAdapterList(monitor).size(), adapters);
        EXPECT_EQ(monitor->Close(), S_OK);
    }
}
} // namespace
