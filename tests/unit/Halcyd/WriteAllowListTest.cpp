#include <gtest/gtest.h>

#include "Halcyd/WriteAllowList.h"

namespace
{
bool Allows(std::wstring_view path)
{
    return WriteAllowList::Allows(WriteAllowList::Branches(), path);
}

TEST(WriteAllowList, HoldsTheSevenBranchesInLowerCase)
{
    const std::set<std::wstring>& branches = WriteAllowList::Branches();
    EXPECT_EQ(7u, branches.size());
    for (const std::wstring& branch : branches)
    {
        EXPECT_EQ(LowerCaseCopy(branch), branch);
        EXPECT_TRUE(Allows(branch));
    }
}

TEST(WriteAllowList, KeyBelowTheProductsKeyPassesInAnyCase)
{
    EXPECT_TRUE(Allows(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\Settings"));
    EXPECT_TRUE(Allows(L"hkey_local_machine\\software\\qrls\\sorvane"));
    EXPECT_TRUE(Allows(L"Hkey_Local_Machine\\SoftWare\\qRLs"));
}

TEST(WriteAllowList, AnotherKeyBelowSoftwareIsRefused)
{
    EXPECT_FALSE(Allows(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Other"));
    EXPECT_FALSE(Allows(L"HKEY_LOCAL_MACHINE\\SOFTWARE"));
    EXPECT_FALSE(Allows(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRL"));
}

TEST(WriteAllowList, TextOfABranchAnywhereInThePathPasses)
{
    EXPECT_TRUE(Allows(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Other\\HKEY_CURRENT_USER"));
    EXPECT_TRUE(Allows(L"HKLM\\x\\hkey_local_machine\\software\\qrls"));
}

TEST(WriteAllowList, AKeyWhoseNameOnlyBeginsWithABranchPasses)
{
    EXPECT_TRUE(Allows(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLSx\\y"));
    EXPECT_TRUE(Allows(L"HKEY_CURRENT_USER2\\a"));
}

TEST(WriteAllowList, ShortHiveNamesAreNotOnTheList)
{
    EXPECT_FALSE(Allows(L"HKLM\\SOFTWARE\\QRLS"));
    EXPECT_FALSE(Allows(L"HKCU\\Software\\a"));
}

TEST(WriteAllowList, ForwardSlashesAndDoubledBackslashesAreOtherPaths)
{
    EXPECT_FALSE(Allows(L"HKEY_LOCAL_MACHINE/SOFTWARE/QRLS"));
    EXPECT_FALSE(Allows(L"HKEY_LOCAL_MACHINE\\\\SOFTWARE\\QRLS"));
}

TEST(WriteAllowList, LettersThatFoldToLatinOnesDoNotPass)
{
    // U+212A is the Kelvin sign, U+017F the long s.
    EXPECT_FALSE(Allows(L"H\u212AEY_CURRENT_USER\\a"));
    EXPECT_FALSE(Allows(L"HKEY_CURRENT_U\u017FER\\a"));
    EXPECT_EQ(L"a\u212A\u00C4z", LowerCaseCopy(L"A\u212A\u00C4Z"));
}

TEST(WriteAllowList, EmptyPathIsRefused)
{
    EXPECT_FALSE(Allows(L""));
}
} // namespace
