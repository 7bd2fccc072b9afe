#include <gtest/gtest.h>

#include <vector>

#include "Halcyd/MultiStringBuffer.h"

namespace
{
std::vector<int> Bytes(std::wstring_view text)
{
    const MultiStringBuffer buffer = MakeMultiStringBuffer(text);
    return {buffer.bytes.get(), buffer.bytes.get() + buffer.size};
}

TEST(MultiStringBuffer, TwoNamesWithACommaBecomeTwoStringsAndTheEndOfTheList)
{
    EXPECT_EQ((std::vector<int>{'a', 0, 'b', 0, 0, 0, 'c', 0, 0, 0, 0, 0}), Bytes(L"ab,c"));
}

TEST(MultiStringBuffer, EmptyTextIsFourZeroBytes)
{
    EXPECT_EQ((std::vector<int>{0, 0, 0, 0}), Bytes(L""));
}

TEST(MultiStringBuffer, HighByteOfAWideCharacterLosesItsCommaValue)
{
    // U+2C41: high byte 0x2C. U+412C: low byte 0x2C.
    EXPECT_EQ((std::vector<int>{0x41, 0, 0, 0, 0, 0}), Bytes(L"\u2C41"));
    EXPECT_EQ((std::vector<int>{0, 0x41, 0, 0, 0, 0}), Bytes(L"\u412C"));
}

TEST(MultiStringBuffer, CommasOnlyGiveZeroBytesOnly)
{
    EXPECT_EQ(std::vector<int>(10, 0), Bytes(L",,,"));
}
} // namespace
