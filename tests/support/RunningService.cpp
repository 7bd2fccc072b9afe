#include "tests/support/RunningService.h"

#include "tests/support/LabControl.h"

void RestartWithHooks(const ServiceControl& service)
{
    ASSERT_TRUE(service.StopAndWait());
    Lab(L"hooks on");
    ASSERT_TRUE(service.StartAndWait());
}
