#pragma once
// The adapter settings of the running service on the lab's laptop.

#include <string>

#include "tests/support/LabControl.h"
#include "tests/support/RunningService.h"

class AdapterSettingsFixture : public RunningServiceTest
{
protected:
    static constexpr wchar_t Ethernet[] = L"{4A1C7E07-3B52-4D0F-9E61-0C5D8A2B7007}";
    static constexpr HRESULT NotFound = static_cast<HRESULT>(0x80041017);

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RunningServiceTest::SetUp());
        Lab(L"load laptop");
        Activate(CLSID_DNS, dns);
    }
    void Connect() { ASSERT_EQ(S_OK, dns->ConnectNetCfg(guid)); }

    IDNSPtr dns;
    _bstr_t guid{Ethernet};
};
