#include "clients/TraceStore/TraceLevels.h"

#include <gtest/gtest.h>

#include "clients/TraceStore/StoreSettings.h"

namespace
{
// The levels live in the machine's registry; each test starts without any and leaves none.
class TraceLevelsTest : public testing::Test
{
protected:
    void SetUp() override { Clear(); }
    void TearDown() override { Clear(); }

    static void Clear()
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, StoreSettings::LevelsKey);
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, StoreSettings::ProductKey, L"TraceLevel");
    }
    static void Set(const wchar_t* key, const wchar_t* value, DWORD number)
    {
        ASSERT_EQ(RegSetKeyValueW(HKEY_LOCAL_MACHINE, key, value, REG_DWORD, &number, sizeof number), ERROR_SUCCESS);
    }
    static std::uint16_t LevelOf(const TraceLevels& levels, std::uint16_t source)
    {
        std::uint16_t level = 99;
        EXPECT_EQ(levels.Source(source, level), S_OK);
        return level;
    }
};
} // namespace

TEST_F(TraceLevelsTest, WithNothingSetTheGlobalLevelIsFourAndSourcesFollowIt)
{
    const TraceLevels levels;
    EXPECT_EQ(levels.Global(), 4);
    for (std::uint16_t source = 0; source <= 36; ++source)
    {
        EXPECT_EQ(LevelOf(levels, source), 0);
    }
}

TEST_F(TraceLevelsTest, ProductsTraceLevelHoldsUntilALevelIsSetHere)
{
    Set(StoreSettings::ProductKey, L"TraceLevel", 6);
    EXPECT_EQ(TraceLevels().Global(), 6);
    TraceLevels levels;
    EXPECT_EQ(levels.SetGlobal(3), S_OK);
    EXPECT_EQ(TraceLevels().Global(), 3);
}

TEST_F(TraceLevelsTest, SetLevelsAreInForceAtOnceAndKept)
{
    TraceLevels levels;
    EXPECT_EQ(levels.SetGlobal(2), S_OK);
    EXPECT_EQ(levels.SetSource(11, 5), S_OK);
    EXPECT_EQ(levels.SetSource(36, 6), S_OK);
    EXPECT_EQ(levels.Global(), 2);
    EXPECT_EQ(LevelOf(levels, 11), 5);
    const TraceLevels later;
    EXPECT_EQ(later.Global(), 2);
    EXPECT_EQ(LevelOf(later, 11), 5);
    EXPECT_EQ(LevelOf(later, 36), 6);
    EXPECT_EQ(LevelOf(later, 10), 0);
}

TEST_F(TraceLevelsTest, SourceOrLevelOutOfRangeIsRefusedAndChangesNothing)
{
    TraceLevels levels;
    std::uint16_t level = 77;
    EXPECT_EQ(levels.Source(37, level), E_INVALIDARG);
    EXPECT_EQ(level, 77);
    EXPECT_EQ(levels.SetSource(37, 4), E_INVALIDARG);
    EXPECT_EQ(levels.SetSource(11, 10), E_INVALIDARG);
    EXPECT_EQ(levels.SetGlobal(10), E_INVALIDARG);
    EXPECT_EQ(levels.Global(), 4);
    EXPECT_EQ(LevelOf(levels, 11), 0);
    EXPECT_EQ(TraceLevels().Global(), 4);
}

TEST_F(TraceLevelsTest, AbsurdValuesInTheRegistryReadAsNotSet)
{
    Set(StoreSettings::LevelsKey, L"Global", 70000);
    Set(StoreSettings::LevelsKey, L"11", 0xFFFFFFFF);
    const TraceLevels levels;
    EXPECT_EQ(levels.Global(), 4);
    EXPECT_EQ(LevelOf(levels, 11), 0);
}
