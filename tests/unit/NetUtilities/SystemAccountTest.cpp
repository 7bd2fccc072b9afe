// Trace flags of a process that runs as the system's own account. The platform's answer about the account's name is
// replaced in this program's import slot; the code under test is as it ships.

#include <windows.h>

#include <gtest/gtest.h>
#include <lmcons.h>

#include <iterator>
#include <string>

#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "tests/unit/support/TraceRecorder.h"
#include "tests/unit/support/VirtualClock.h"

namespace
{
constexpr wchar_t UserKey[] = L"Software\\QRLS\\Sorvane\\CurrentInstall";
constexpr wchar_t ProductKey[] = L"Software\\QRLS\\Sorvane";
constexpr wchar_t SystemAccount[] = L"SYSTEM";
constexpr std::uint32_t ScopeFlagOnly = 1U << 19;

const wchar_t* pretendedName = nullptr; // null: the real one

BOOL WINAPI AnswerUserName(LPWSTR name, LPDWORD size)
{
    using Function = BOOL(WINAPI*)(LPWSTR, LPDWORD);
    static const auto real = reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(L"advapi32.dll"), "GetUserNameW")));
    if (pretendedName == nullptr)
    {
        return real(name, size);
    }
    wcscpy_s(name, *size, pretendedName);
    *size = static_cast<DWORD>(wcslen(pretendedName)) + 1;
    return TRUE;
}

std::wstring ThisUser()
{
    wchar_t name[UNLEN + 1] = {};
    DWORD size = static_cast<DWORD>(std::size(name));
    EXPECT_TRUE(AnswerUserName(name, &size));
    return name;
}

class SystemAccountTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RestartTrace();
        TraceRecorder::Get().Reset();
        ASSERT_EQ(0U, user.Create(HKEY_CURRENT_USER, UserKey, KEY_READ | KEY_WRITE));
        ASSERT_EQ(0U, user.WriteDword(L"TraceFlags", ScopeFlagOnly));
        ASSERT_EQ(0U, product.Create(HKEY_LOCAL_MACHINE, ProductKey, KEY_READ | KEY_WRITE));
        ASSERT_EQ(0U, product.WriteString(L"LoggedOnUser", ThisUser()));
        LetTheFlagsGrowOld();
    }
    void TearDown() override
    {
        pretendedName = nullptr;
        product.DeleteValue(L"LoggedOnUser");
        user.WriteDword(L"TraceFlags", 0);
        LetTheFlagsGrowOld();
    }
    void LetTheFlagsGrowOld() { clock.AdvanceSeconds(11); }

    VirtualClock clock;
    RegistryKey user;
    RegistryKey product;
};

TEST_F(SystemAccountTest, FollowsTheFlagsOfTheUserWhomTheClientRecorded)
{
    pretendedName = SystemAccount;
    EXPECT_EQ(GetTraceFlags(), ScopeFlagOnly);
    // Its own hive does not count: without the record there are no flags.
    ASSERT_EQ(0U, product.DeleteValue(L"LoggedOnUser"));
    LetTheFlagsGrowOld();
    EXPECT_EQ(GetTraceFlags(), 0U);
    ASSERT_EQ(0U, product.WriteString(L"LoggedOnUser", L"nobody of this name"));
    LetTheFlagsGrowOld();
    EXPECT_EQ(GetTraceFlags(), 0U);
}

TEST_F(SystemAccountTest, IsKnownByItsExactNameOnly)
{
    ASSERT_EQ(0U, product.DeleteValue(L"LoggedOnUser"));
    for (const wchar_t* const name : {L"System", L"SYSTEM ", L"LOCAL SERVICE"})
    {
        pretendedName = name;
        LetTheFlagsGrowOld();
        EXPECT_EQ(GetTraceFlags(), ScopeFlagOnly) << std::wstring(name);
    }
}
} // namespace

extern "C"
{
    // The import slot. The name is the linker's.
    decltype(&AnswerUserName) __imp_GetUserNameW = &AnswerUserName;
}
