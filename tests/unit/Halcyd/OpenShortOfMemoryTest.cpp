// Open when the one small block that it asks for without an exception cannot be had.

#include <gtest/gtest.h>

#include "Halcyd/EventSink.h"
#include "tests/unit/Halcyd/AllocationBalance.h"
#include "tests/unit/Halcyd/TestMonitor.h"
#include "tests/unit/Halcyd/TraceLines.h"

namespace
{
TEST(OpenShortOfMemory, WithoutRoomForTheEventSinkItReturnsFourteenAndOnlyCloseLeadsBack)
{
    const TraceLines trace;
    const TestObject<TestMonitor> monitor = MakeTestObject<TestMonitor>();
    monitor->UseWmi();
    monitor->UseCimv2();
    HRESULT result = E_FAIL;
    {
        const NoRoomFor lacking(sizeof(EventSink));
        result = monitor->Open();
    }
    EXPECT_EQ(result, 14); // positive: a client's success test lets it pass
    EXPECT_TRUE(TraceLines::Has(L"Error could not create QuerySink object"));
    VARIANT_BOOL open = VARIANT_FALSE;
    EXPECT_EQ(monitor->IsOpen(&open), S_OK);
    EXPECT_EQ(open, VARIANT_TRUE);
    EXPECT_EQ(monitor->Open(), S_OK); // counts, and repairs nothing
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(monitor->Close(), S_OK);
    EXPECT_EQ(monitor->IsOpen(&open), S_OK);
    EXPECT_EQ(open, VARIANT_FALSE);
}
} // namespace
