// Arrays that a client sends under the type of a string array.
#include "tests/unit/Halcyd/DNSFixture.h"

namespace
{
using namespace DNSTests;

class DNSArrays : public DNSFixture
{
};

TEST_F(DNSArrays, ThatOnlyClaimToHoldTextsAreRefusedAndTheirNumbersNotFollowed)
{
    Connect();
    machine.ClearJournal();
    _variant_t good = TextArray({L"192.0.2.1"});
    for (const VARTYPE entries : {VT_I8, VT_UI1, VT_I4, VT_DECIMAL, VT_VARIANT})
    {
        VARIANT liar;
        liar.vt = VT_ARRAY | VT_BSTR;
        liar.parray = SafeArrayCreateVector(entries, 0, 4);
        if (entries != VT_VARIANT)
        {
            memset(liar.parray->pvData, 0x41, std::size_t{4} * liar.parray->cbElements); // no address that can be read
        }
        EXPECT_EQ(Unexpected, object->SetDNS(Guid(), &liar)) << entries;
        EXPECT_EQ(Unexpected, object->SetDNSSuffixSearchOrder(Guid(), &liar)) << entries;
        EXPECT_EQ(Unexpected, object->EnableStatic(Guid(), &liar, &good)) << entries;
        EXPECT_EQ(Unexpected, object->EnableStatic(Guid(), &good, &liar)) << entries;
        SafeArrayDestroy(liar.parray);
    }
    EXPECT_EQ(0u, Journalled("IWbemServices::ExecMethod").size());
}
} // namespace
