#include "Input/InputMachine.h"

#include "Host/HostSupport.h"
#include "NetUtilities/Format.h"

void InputTest::SetUp()
{
    MonitorTest::SetUp();
    if (HasFatalFailure())
    {
        return;
    }
    ASSERT_TRUE(service.WaitForState(SERVICE_RUNNING)); // it serves before it says so
    dns = ActivateLocal<IDNSPtr>(CLSID_DNS);
    registry = ActivateLocal<INetRegistryPtr>(CLSID_NetRegistry);
    services = ActivateLocal<IServiceControlExPtr>(CLSID_ServiceControlEx);
    vnic = ActivateLocal<IVNICPtr>(CLSID_VNIC);
    monitor = ActivateMonitor();
    ASSERT_TRUE(dns && registry && services && vnic && monitor);
    processes = FindProcesses(L"Halcyd.exe");
    ASSERT_EQ(processes.size(), 1u);
}

void InputTest::TearDown()
{
    if (!processes.empty())
    {
        ExpectSameServiceAnswers();
    }
}

void InputTest::Check(const std::vector<InputCall>& calls)
{
    for (const InputCall& call : calls)
    {
        const HRESULT result = call.run();
        EXPECT_EQ(result, call.expected) << call.name << " gave 0x" << std::hex << result;
    }
}

void InputTest::ExpectSameServiceAnswers()
{
    EXPECT_EQ(FindProcesses(L"Halcyd.exe"), processes);
    _variant_t type;
    _variant_t data;
    EXPECT_EQ(registry->QueryRegistry(_bstr_t(L"CurrentVersion"),
                                      _bstr_t(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion"),
                                      &type, &data),
              S_OK);
    EXPECT_EQ(data.vt, VT_BSTR);
    VARIANT mode{};
    VARIANT startType{};
    V_VT(&mode) = V_VT(&startType) = VT_I4;
    EXPECT_EQ(services->QueryServiceMode(_bstr_t(kServiceName), &mode, &startType), S_OK);
    EXPECT_EQ(V_I4(&startType), SERVICE_AUTO_START);
    EXPECT_EQ(dns->ConnectNetCfg(ethernet), S_OK);
    BSTR address = nullptr;
    EXPECT_EQ(dns->GetIpAddress(ethernet, &address), S_OK);
    SysFreeString(address);
    EXPECT_EQ(dns->DisconnectNetCfg(), S_OK);
    UINT infos = 0;
    EXPECT_EQ(vnic->GetTypeInfoCount(&infos), S_OK);
    // A client that comes anew.
    HRESULT result = E_FAIL;
    const INetMonSvPtr another = ActivateMonitor(&result);
    ASSERT_EQ(result, S_OK);
    VARIANT_BOOL open = VARIANT_TRUE;
    EXPECT_EQ(another->IsOpen(&open), S_OK);
    EXPECT_EQ(another->Open(), S_OK);
    EXPECT_FALSE(ReadAdapterList(another).empty());
    EXPECT_EQ(another->Close(), S_OK);
}

ISimpleSinkPtr ActivateSimpleSink()
{
    wchar_t id[40]{};
    StringFromGUID2(CLSID_SimpleSink, id, 40);
    const std::wstring key = FormatText(L"SOFTWARE\\Classes\\CLSID\\{}", id);
    EXPECT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), L"AppID", REG_SZ, HostSupport::AppId,
                              sizeof HostSupport::AppId),
              0);
    return ActivateLocal<ISimpleSinkPtr>(CLSID_SimpleSink);
}

_bstr_t LongText(std::size_t length, wchar_t character)
{
    return _bstr_t(std::wstring(length, character).c_str());
}

_bstr_t TextWithNul()
{
    return _bstr_t(SysAllocStringLen(L"begin\0end", 9), false);
}
