// A fixture for clients of the running service.
#pragma once

#include <windows.h>

#include <comdef.h>
#include <gtest/gtest.h>

#include "NetUtilities/ComApartment.h"
#include "tests/support/ComPointers.h"
#include "tests/support/Services.h"

// Starts the service anew with the lab's hooks in its import table: only then do the journal and fault rules reach its
// own platform calls. Fails fatally when the service does not follow.
void RestartWithHooks(const ServiceControl& service);

// COM on the test's thread, and the service says RUNNING.
class RunningServiceTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(apartment.Initialized());
        // An activation waits only so long for a service that is on its way up.
        ASSERT_TRUE(service.StartAndWait());
    }

    // An object of one of the service's classes; without one the test fails fatally.
    template <class Pointer>
    static void Activate(REFCLSID classId, Pointer& object)
    {
        HRESULT result = E_FAIL;
        object = ActivateLocal<Pointer>(classId, &result);
        ASSERT_EQ(S_OK, result);
    }

    ComApartment apartment;
    ServiceControl service;
};
