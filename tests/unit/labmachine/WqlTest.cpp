#include "lab/wmi/Wql.h"

#include "lab/wmi/ObjectPath.h"

#include <gtest/gtest.h>

#include <map>

namespace lab::wmi
{
namespace
{

using Values = std::map<std::wstring, Value>;

bool Fits(const wchar_t* condition, const Values& values)
{
    const auto query = ParseQuery(std::wstring{L"SELECT * FROM X WHERE "} + condition);
    EXPECT_TRUE(query) << condition;
    return query && Meets(query->where.get(),
                          [&](std::wstring_view name)
                          {
                              const auto found = values.find(std::wstring{name});
                              return found == values.end() ? Value{} : found->second;
                          });
}

TEST(WqlParser, TakesKeyWordsInAnyCaseAndKeepsTheClassName)
{
    const auto query = ParseQuery(L"  select * From MSNdis_StatusMediaConnect ");
    ASSERT_TRUE(query);
    EXPECT_EQ(query->className, L"MSNdis_StatusMediaConnect");
    EXPECT_TRUE(query->properties.empty());
    EXPECT_EQ(query->where, nullptr);
}

TEST(WqlParser, TakesPropertyListsAndWithin)
{
    const auto query = ParseQuery(L"SELECT Index, SettingID FROM X WITHIN 2.5 WHERE A=1");
    ASSERT_TRUE(query);
    EXPECT_EQ(query->properties, (std::vector<std::wstring>{L"Index", L"SettingID"}));
    EXPECT_EQ(query->within, 2.5);
}

TEST(WqlParser, RefusesWhatIsNoQuery)
{
    for (const wchar_t* text :
         {L"", L"SELECT", L"SELECT * FROM", L"SELECT FROM X", L"SELECT * FROM X WHERE", L"SELECT * FROM X WHERE A",
          L"SELECT * FROM X WHERE A=", L"SELECT * FROM X WHERE A='open", L"SELECT * FROM X WHERE (A=1",
          L"SELECT * FROM X more", L"SELECT * FROM X WHERE A = bare", L"DELETE * FROM X",
          L"SELECT * FROM X WHERE A ~ 1", L"SELECT *, A FROM X", L"SELECT * FROM X;"})
    {
        EXPECT_FALSE(ParseQuery(text)) << text;
    }
}

TEST(WqlConditions, NullComparesWithPresenceOnly)
{
    EXPECT_TRUE(Fits(L"MACAddress <> NULL", {{L"MACAddress", std::wstring{L"x"}}}));
    EXPECT_TRUE(Fits(L"MACAddress != null", {{L"MACAddress", std::wstring{}}}));
    EXPECT_FALSE(Fits(L"MACAddress <> NULL", {}));
    EXPECT_TRUE(Fits(L"MACAddress = NULL", {}));
    EXPECT_TRUE(Fits(L"MACAddress IS NULL", {}));
    EXPECT_TRUE(Fits(L"MACAddress IS NOT NULL", {{L"MACAddress", std::wstring{L"x"}}}));
    EXPECT_FALSE(Fits(L"MACAddress = 'x'", {}));
    EXPECT_FALSE(Fits(L"MACAddress <> 'x'", {}));
}

TEST(WqlConditions, TextsCompareWithoutLetterCaseInEitherQuotes)
{
    EXPECT_TRUE(Fits(L"SettingID='{ab}'", {{L"SettingID", std::wstring{L"{AB}"}}}));
    EXPECT_TRUE(Fits(L"SettingID=\"{ab}\"", {{L"SettingID", std::wstring{L"{AB}"}}}));
    EXPECT_TRUE(Fits(L"A='PCI\\\\VEN'", {{L"A", std::wstring{L"PCI\\VEN"}}}));
}

TEST(WqlConditions, NumbersAndFlagsCompareAlsoFromQuotes)
{
    const Values values{{L"Index", 7}, {L"IPEnabled", true}};
    EXPECT_TRUE(Fits(L"Index=7", values));
    EXPECT_TRUE(Fits(L"Index='7'", values));
    EXPECT_TRUE(Fits(L"Index>6 AND Index<=7", values));
    EXPECT_FALSE(Fits(L"Index<7", values));
    EXPECT_TRUE(Fits(L"IPEnabled=TRUE", values));
    EXPECT_TRUE(Fits(L"IPEnabled<>false", values));
    EXPECT_FALSE(Fits(L"Index='seven'", values));
}

TEST(WqlConditions, AndBindsTighterThanOrAndNotTighterThanBoth)
{
    const Values values{{L"A", 1}, {L"B", 2}};
    EXPECT_TRUE(Fits(L"A=1 OR A=2 AND B=3", values));
    EXPECT_FALSE(Fits(L"(A=1 OR A=2) AND B=3", values));
    EXPECT_TRUE(Fits(L"NOT A=2 AND B=2", values));
    EXPECT_FALSE(Fits(L"NOT (A=2 OR B=2)", values));
}

TEST(WqlConditions, LikeKnowsBothWildcards)
{
    const Values values{{L"Name", std::wstring{L"Brevik GX210"}}};
    EXPECT_TRUE(Fits(L"Name LIKE 'brevik%'", values));
    EXPECT_TRUE(Fits(L"Name LIKE '%GX2_0'", values));
    EXPECT_FALSE(Fits(L"Name LIKE 'GX%'", values));
}

TEST(ObjectPaths, ClassInstanceAndPrefixes)
{
    const auto type = ParsePath(L"Win32_NetWorkAdapterConfiguration");
    ASSERT_TRUE(type);
    EXPECT_FALSE(type->key);
    const auto instance = ParsePath(L"\\\\.\\root\\cimv2:Win32_NetWorkAdapterConfiguration.Index='7'");
    ASSERT_TRUE(instance);
    EXPECT_EQ(instance->className, L"Win32_NetWorkAdapterConfiguration");
    EXPECT_EQ(instance->property, L"Index");
    EXPECT_EQ(instance->key, L"7");
    EXPECT_EQ(ParsePath(L"X=\"a:b\"")->key, L"a:b");
    EXPECT_EQ(ParsePath(L"X.K=12")->key, L"12");
}

TEST(ObjectPaths, RefusesWhatIsNoPath)
{
    for (const wchar_t* text : {L"", L"1X", L"X.", L"X.K", L"X.K=", L"X.K='a", L"X.K=a", L"X Y", L"X.K.L=1"})
    {
        EXPECT_FALSE(ParsePath(text)) << text;
    }
}

} // namespace
} // namespace lab::wmi
