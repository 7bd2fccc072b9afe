#pragma once
// The monitor's system tests: the shipped service in this Windows, a scenario of the lab, and a client.

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

#include "NetUtilities/ComApartment.h"
#include "tests/support/AdapterRecords.h"
#include "tests/support/ComPointers.h"
#include "tests/support/EventRecorder.h"
#include "tests/support/LabControl.h"
#include "tests/support/Processes.h"
#include "tests/support/Services.h"

// Adapters of the laptop scenario.
inline constexpr wchar_t kEthernet[] = L"{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}";
inline constexpr wchar_t kWiFi[] = L"{4A1C7E09-3B52-4D0F-9E61-0C5D8A2B7009}";
inline constexpr wchar_t kBluetooth[] = L"{4A1C7E0B-3B52-4D0F-9E61-0C5D8A2B700B}";
inline constexpr wchar_t kDock[] = L"{4A1C7E0D-3B52-4D0F-9E61-0C5D8A2B700D}";

// A fixture with the laptop scenario loaded and the service running.
class MonitorTest : public testing::Test
{
protected:
    void SetUp() override;

    // The monitor as a client of its own would get it.
    INetMonSvPtr Monitor();
    // One Open and one StartNotificationProcessing.
    INetMonSvPtr OpenMonitor();

    ComApartment apartment;
    ServiceControl service;
};
