// The helpers of the adapter settings and of the service proxy open a scope, as the methods do.

#include "Halcyd/ServiceControlEx.h"
#include "tests/unit/Halcyd/DNSFixture.h"
#include "tests/unit/Halcyd/ScopesTraced.h"

namespace
{
class HelperScopes : public ScopesTraced<DNSTests::DNSFixture>
{
protected:
    static void ExpectScopes(const std::wstring& function, int count)
    {
        EXPECT_EQ(count, TraceLines::Count(L"Enter ==> " + function + L" pid ")) << function.c_str();
        EXPECT_EQ(count, TraceLines::Count(L"Exit  <== " + function + L" pid ")) << function.c_str();
    }
};

TEST_F(HelperScopes, OfTheAdapterSettings)
{
    Connect();
    _variant_t servers = TextArray({L"192.0.2.60"});
    EXPECT_EQ(S_OK, object->SetDNS(Guid(), &servers));
    ExpectScopes(L"CDNS::GetInstancePathByGuid", 2);
    ExpectScopes(L"CDNS::BuildInstancePath", 1); // the second time the table knows it
    ExpectScopes(L"CDNS::OutputDNSArray", 1);
    ExpectScopes(L"CDNS::CheckWMIReturnCode", 1);
}

TEST_F(HelperScopes, OfThePrivilegeWithTheErrorLeftForTheCaller)
{
    const int done = CServiceControlEx::SetPrivilege(nullptr, L"NoSuchPrivilege", 1);
    const DWORD error = GetLastError();
    EXPECT_EQ(0, done);
    EXPECT_EQ(static_cast<DWORD>(ERROR_NO_SUCH_PRIVILEGE), error);
    ExpectScopes(L"CServiceControlEx::SetPrivilege", 1);
}
} // namespace
