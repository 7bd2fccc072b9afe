#include "tests/support/RunningService.h"

#include "tests/support/LabControl.h"
#include "tests/support/TraceStoreKept.h"

void RestartWithHooks(const ServiceControl& service)
{
    const TraceStoreKept kept;
    ASSERT_TRUE(service.StopAndWait());
    Lab(L"hooks on");
    ASSERT_TRUE(service.StartAndWait());
}
