// The type library in the executable: what late-bound clients and other languages were built against.

#include <windows.h>

#include <comdef.h>
#include <gtest/gtest.h>

#include <map>

#include "Host/HostSupport.h"
#include "tests/support/ComPointers.h"

_COM_SMARTPTR_TYPEDEF(ITypeLib, __uuidof(ITypeLib));
_COM_SMARTPTR_TYPEDEF(ITypeInfo, __uuidof(ITypeInfo));

namespace
{
struct Member
{
    MEMBERID id;
    std::wstring name;
};

ITypeLibPtr Library()
{
    ITypeLibPtr library;
    EXPECT_EQ(LoadTypeLibEx(HostSupport::ServiceExecutable().c_str(), REGKIND_NONE, &library), S_OK);
    return library;
}

// The members of an interface or dispinterface in the library's order, those of IDispatch left out.
std::vector<Member> Members(REFIID iid)
{
    std::vector<Member> members;
    ITypeInfoPtr info;
    EXPECT_EQ(Library()->GetTypeInfoOfGuid(iid, &info), S_OK);
    TYPEATTR* attributes = nullptr;
    EXPECT_EQ(info->GetTypeAttr(&attributes), S_OK);
    for (UINT i = 0; i < attributes->cFuncs; ++i)
    {
        FUNCDESC* function = nullptr;
        EXPECT_EQ(info->GetFuncDesc(i, &function), S_OK);
        if (function->memid < 0x60000000)
        {
            _bstr_t name;
            UINT count = 0;
            BSTR raw = nullptr;
            EXPECT_EQ(info->GetNames(function->memid, &raw, 1, &count), S_OK);
            name.Attach(raw);
            members.push_back({function->memid, std::wstring(name)});
        }
        info->ReleaseFuncDesc(function);
    }
    info->ReleaseTypeAttr(attributes);
    return members;
}

void ExpectMembers(REFIID iid, const std::vector<Member>& expected)
{
    const std::vector<Member> found = Members(iid);
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
    {
        EXPECT_EQ(found[i].id, expected[i].id) << i;
        EXPECT_EQ(found[i].name, expected[i].name) << i;
    }
}
} // namespace

TEST(TypeLibrary, HasItsIdNameVersionAndHelpText)
{
    const ITypeLibPtr library = Library();
    ASSERT_TRUE(library);
    TLIBATTR* attributes = nullptr;
    ASSERT_EQ(library->GetLibAttr(&attributes), S_OK);
    wchar_t id[40]{};
    StringFromGUID2(attributes->guid, id, 40);
    EXPECT_STREQ(id, HostSupport::LibraryId);
    EXPECT_EQ(attributes->wMajorVerNum, 1);
    EXPECT_EQ(attributes->wMinorVerNum, 0);
    library->ReleaseTLibAttr(attributes);
    BSTR name = nullptr;
    BSTR text = nullptr;
    ASSERT_EQ(library->GetDocumentation(-1, &name, &text, nullptr, nullptr), S_OK);
    EXPECT_EQ(std::wstring(_bstr_t(name, false)), L"HALCYDLib");
    EXPECT_EQ(std::wstring(_bstr_t(text, false)), L"Halcyd 1.0 Type Library");
}

TEST(TypeLibrary, MonitorHasItsMembersInOrder)
{
    ExpectMembers(IID_INetMonSv, {{0x1, L"Open"},
                                  {0x2, L"Close"},
                                  {0x3, L"FilterMask"},
                                  {0x3, L"FilterMask"},
                                  {0x4, L"GetDeviceInfoList"},
                                  {0x5, L"StartNotificationProcessing"},
                                  {0x6, L"StopNotificationProcessing"},
                                  {0xe, L"WiFiSurvey"},
                                  {0x20, L"DisableIpBindings"},
                                  {0x21, L"RestoreIpBindings"},
                                  {0x22, L"ChangeMultiHomingPreferenceIfAllowed"},
                                  {0x23, L"RestoreIpBindingsSync"},
                                  {0x25, L"ResetSsidList"},
                                  {0x2f, L"IsOpen"}});
}

TEST(TypeLibrary, EventsHaveTheirNumbersWithoutAThree)
{
    ExpectMembers(DIID__INetMonSv, {{1, L"WmiEvent"},
                                    {2, L"AdapterChange"},
                                    {4, L"IpAddressChange"},
                                    {5, L"SimSecurityChange"},
                                    {6, L"NewSmsMsg"}});
}

TEST(TypeLibrary, SettingsHaveTheirMembersInOrder)
{
    ExpectMembers(IID_IDNS, {{0x1, L"ConnectNetCfg"},
                             {0x4, L"SetDNS"},
                             {0x5, L"GetDNS"},
                             {0x6, L"SetWINS"},
                             {0x7, L"GetWINS"},
                             {0x8, L"SetDNSSuffixSearchOrder"},
                             {0x9, L"GetDNSSuffixSearchOrder"},
                             {0xa, L"SetDNSDomain"},
                             {0xb, L"GetDNSDomain"},
                             {0xc, L"DisconnectNetCfg"},
                             {0xd, L"EnableDHCP"},
                             {0xe, L"SetGateways"},
                             {0xf, L"EnableStatic"},
                             {0x10, L"ReleaseDHCPLease"},
                             {0x11, L"GetDefaultGateway"},
                             {0x12, L"RenewDHCPLease"},
                             {0x13, L"GetIpAddress"}});
}

TEST(TypeLibrary, ProxiesAndSinkHaveTheirMembersInOrder)
{
    ExpectMembers(IID_INetRegistry, {{1, L"QueryRegistry"},
                                     {2, L"SetRegistry"},
                                     {3, L"RefreshDNSCache"},
                                     {4, L"DeleteRegistry"},
                                     {5, L"DeleteRegistryNode"}});
    ExpectMembers(IID_IServiceControlEx, {{1, L"SetServiceMode"}, {2, L"QueryServiceMode"}});
    ExpectMembers(IID_ISimpleSink, {{1, L"Test"}});
}

TEST(TypeLibrary, VirtualAdapterHasItsTwentyMembersInOrder)
{
    const wchar_t* const names[] = {L"CreateRouteEntry",
                                    L"DeleteRouteEntry",
                                    L"EnableVNICAdapter",
                                    L"EnableVNICAdapterAsynch",
                                    L"DisableVNICAdapter",
                                    L"DisableVNICAdapterAsynch",
                                    L"ResetVNICAdapterAsynch",
                                    L"ResetVNICAdapter",
                                    L"GetVNICStatus",
                                    L"TunvexSetIpForwardEntry",
                                    L"RouteCommand",
                                    L"TunvexUpdateVnicState",
                                    L"CleanUpVnicStateIfNecessary",
                                    L"TunvexInitVnicForVista",
                                    L"TunvexGetInterfaceMetric",
                                    L"ConfigureVnic",
                                    L"CreateMultipleRouteEntries",
                                    L"CreateMultipleIPv6RouteEntries",
                                    L"DeleteMultipleIPv6RouteEntries",
                                    L"PerformGenericAction"};
    std::vector<Member> expected;
    for (MEMBERID id = 2; id <= 21; ++id)
    {
        expected.push_back({id, names[id - 2]});
    }
    ExpectMembers(IID_IVNIC, expected);
}

TEST(TypeLibrary, SixClassesNameTheirInterfacesAndTheMonitorItsEvents)
{
    const std::pair<CLSID, IID> classes[] = {
        {CLSID_DNS, IID_IDNS},   {CLSID_NetRegistry, IID_INetRegistry}, {CLSID_ServiceControlEx, IID_IServiceControlEx},
        {CLSID_VNIC, IID_IVNIC}, {CLSID_NetMonSv, IID_INetMonSv},       {CLSID_SimpleSink, IID_ISimpleSink}};
    const ITypeLibPtr library = Library();
    for (const auto& [clsid, iid] : classes)
    {
        ITypeInfoPtr info;
        ASSERT_EQ(library->GetTypeInfoOfGuid(clsid, &info), S_OK);
        HREFTYPE reference = 0;
        ASSERT_EQ(info->GetRefTypeOfImplType(0, &reference), S_OK);
        ITypeInfoPtr implemented;
        ASSERT_EQ(info->GetRefTypeInfo(reference, &implemented), S_OK);
        TYPEATTR* attributes = nullptr;
        ASSERT_EQ(implemented->GetTypeAttr(&attributes), S_OK);
        EXPECT_TRUE(IsEqualGUID(attributes->guid, iid));
        implemented->ReleaseTypeAttr(attributes);
    }
    ITypeInfoPtr monitor;
    ASSERT_EQ(library->GetTypeInfoOfGuid(CLSID_NetMonSv, &monitor), S_OK);
    INT flags = 0;
    ASSERT_EQ(monitor->GetImplTypeFlags(1, &flags), S_OK);
    EXPECT_EQ(flags, IMPLTYPEFLAG_FDEFAULT | IMPLTYPEFLAG_FSOURCE);
}
