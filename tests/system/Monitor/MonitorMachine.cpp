#include "Monitor/MonitorMachine.h"

void MonitorTest::SetUp()
{
    ASSERT_TRUE(apartment.Initialized());
    Lab(L"load laptop");
    // The service starts with Windows; the activation waits until its class objects are there.
    HRESULT result = E_FAIL;
    const INetMonSvPtr first = ActivateMonitor(&result);
    ASSERT_EQ(result, S_OK);
}

INetMonSvPtr MonitorTest::Monitor()
{
    HRESULT result = E_FAIL;
    INetMonSvPtr monitor = ActivateMonitor(&result);
    EXPECT_EQ(result, S_OK);
    return monitor;
}

INetMonSvPtr MonitorTest::OpenMonitor()
{
    INetMonSvPtr monitor = Monitor();
    EXPECT_EQ(monitor->Open(), S_OK);
    EXPECT_EQ(monitor->StartNotificationProcessing(), S_OK);
    return monitor;
}
