#include <gtest/gtest.h>

#include <comdef.h>

#include <map>
#include <string>
#include <vector>

#include "Halcyd/NetRegistry.h"
#include "tests/unit/Halcyd/FakeServices.h"
#include "tests/unit/Halcyd/PlatformHooks.h"
#include "tests/unit/Halcyd/TestModule.h"
#include "tests/unit/Halcyd/TraceLines.h"
#include "tests/unit/Halcyd/VariantTypes.h"

namespace
{
constexpr const wchar_t* TestSubkey = L"SOFTWARE\\QRLS\\Sorvane\\ProxyTest";
constexpr const wchar_t* TestPath = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\ProxyTest";
constexpr const wchar_t* OtherSubkey = L"SOFTWARE\\ProxyTestOther";
constexpr const wchar_t* OtherPath = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\ProxyTestOther";

class NetRegistryTest : public testing::Test
{
protected:
    NetRegistryTest() : object(MakeTestObject<CNetRegistry>()) { Clean(); }
    ~NetRegistryTest() override { Clean(); }

    static void Clean()
    {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, TestSubkey);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, OtherSubkey);
    }
    static bool KeyExists(const wchar_t* subkey)
    {
        HKEY key = nullptr;
        const bool exists = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, KEY_READ, &key) == ERROR_SUCCESS;
        RegCloseKey(key);
        return exists;
    }
    static void WriteRaw(const wchar_t* subkey, const wchar_t* value, DWORD type, const void* data, DWORD size)
    {
        HKEY key = nullptr;
        ASSERT_EQ(0, RegCreateKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, nullptr, 0, KEY_WRITE, nullptr, &key, nullptr));
        ASSERT_EQ(0, RegSetValueExW(key, value, 0, type, static_cast<const BYTE*>(data), size));
        RegCloseKey(key);
    }
    struct Raw
    {
        LONG error = 0;
        DWORD type = 0;
        std::vector<BYTE> data;
    };
    static Raw ReadRaw(const wchar_t* value)
    {
        HKEY key = nullptr;
        Raw raw;
        raw.error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, TestSubkey, 0, KEY_READ, &key);
        DWORD size = 4096;
        raw.data.resize(size);
        if (raw.error == 0)
        {
            raw.error = RegQueryValueExW(key, value, nullptr, &raw.type, raw.data.data(), &size);
        }
        raw.data.resize(raw.error == 0 ? size : 0);
        RegCloseKey(key);
        return raw;
    }
    static std::vector<BYTE> BytesOf(std::wstring_view text)
    {
        const auto* begin = reinterpret_cast<const BYTE*>(text.data());
        return {begin, begin + text.size() * sizeof(wchar_t)};
    }

    HRESULT Query(const wchar_t* path, const wchar_t* value)
    {
        type.Clear();
        data.Clear();
        return object->QueryRegistry(_bstr_t(value), _bstr_t(path), &type, &data);
    }
    HRESULT Set(const wchar_t* path, const wchar_t* value, const _variant_t& registryType, const _variant_t& contents)
    {
        return object->SetRegistry(_bstr_t(value), _bstr_t(path), registryType, contents);
    }

    TraceLines trace;
    HookScope hooks;
    TestObject<CNetRegistry> object;
    _variant_t type;
    _variant_t data;
};

// --- QueryRegistry ---

TEST_F(NetRegistryTest, QueryReadsTextAnywhereOnTheMachine)
{
    WriteRaw(OtherSubkey, L"text", REG_SZ, L"hello", 12);
    EXPECT_EQ(0, Query(OtherPath, L"text"));
    EXPECT_EQ(VT_I4, type.vt);
    EXPECT_EQ(1, type.lVal);
    ASSERT_EQ(VT_BSTR, data.vt);
    EXPECT_STREQ(L"hello", data.bstrVal);
}

TEST_F(NetRegistryTest, QueryOfAnEmptyTextGivesAnEmptyBstr)
{
    WriteRaw(TestSubkey, L"empty", REG_SZ, L"", 0);
    EXPECT_EQ(0, Query(TestPath, L"empty"));
    ASSERT_EQ(VT_BSTR, data.vt);
    ASSERT_NE(nullptr, data.bstrVal);
    EXPECT_EQ(0u, SysStringLen(data.bstrVal));
}

TEST_F(NetRegistryTest, QueryOfATextWithoutTerminatorTakesAllOfItAndNoMore)
{
    WriteRaw(TestSubkey, L"bare", REG_SZ, L"abc", 6);
    EXPECT_EQ(0, Query(TestPath, L"bare"));
    EXPECT_STREQ(L"abc", data.bstrVal);
}

TEST_F(NetRegistryTest, QueryReadsDwordAsI4AndQwordAsUi8)
{
    const DWORD number = 0xFEDCBA98;
    const ULONGLONG large = 0xFEDCBA9876543210;
    WriteRaw(TestSubkey, L"d", REG_DWORD, &number, sizeof(number));
    WriteRaw(TestSubkey, L"q", REG_QWORD, &large, sizeof(large));
    EXPECT_EQ(0, Query(TestPath, L"d"));
    EXPECT_EQ(4, type.lVal);
    EXPECT_EQ(VT_I4, data.vt);
    EXPECT_EQ(static_cast<LONG>(number), data.lVal);
    EXPECT_EQ(0, Query(TestPath, L"q"));
    EXPECT_EQ(11, type.lVal);
    EXPECT_EQ(VT_UI8, data.vt);
    EXPECT_EQ(large, data.ullVal);
}

TEST_F(NetRegistryTest, QueryOfNumbersThatAreTooShortFillsUpWithZeroes)
{
    const BYTE bytes[] = {1, 2};
    WriteRaw(TestSubkey, L"d", REG_DWORD, bytes, 2);
    WriteRaw(TestSubkey, L"q", REG_QWORD, bytes, 0);
    EXPECT_EQ(0, Query(TestPath, L"d"));
    EXPECT_EQ(0x0201, data.lVal);
    EXPECT_EQ(0, Query(TestPath, L"q"));
    EXPECT_EQ(0u, data.ullVal);
}

TEST_F(NetRegistryTest, QueryReadsAMultiStringAsAnArrayWithLowerBoundZero)
{
    WriteRaw(TestSubkey, L"m", REG_MULTI_SZ, L"one\0two\0\0", 18);
    EXPECT_EQ(0, Query(TestPath, L"m"));
    EXPECT_EQ(7, type.lVal);
    ASSERT_EQ(VT_ARRAY | VT_BSTR, data.vt);
    LONG lower = -1;
    LONG upper = -1;
    SafeArrayGetLBound(data.parray, 1, &lower);
    SafeArrayGetUBound(data.parray, 1, &upper);
    EXPECT_EQ(0, lower);
    ASSERT_EQ(1, upper);
    const auto* entries = static_cast<BSTR*>(data.parray->pvData);
    EXPECT_STREQ(L"one", entries[0]);
    EXPECT_STREQ(L"two", entries[1]);
    EXPECT_TRUE(trace.Has(L"one"));
    EXPECT_TRUE(trace.Has(L"the multi-string contains 2 string(s)"));
}

TEST_F(NetRegistryTest, QueryOfAnEmptyMultiStringLeavesTheDataEmpty)
{
    WriteRaw(TestSubkey, L"m", REG_MULTI_SZ, L"\0", 4);
    EXPECT_EQ(0, Query(TestPath, L"m"));
    EXPECT_EQ(7, type.lVal);
    EXPECT_EQ(VT_EMPTY, data.vt);
}

TEST_F(NetRegistryTest, QueryOfAMultiStringWithoutMemoryForTheArrayReturnsZeroAndNothingInTheData)
{
    WriteRaw(TestSubkey, L"m", REG_MULTI_SZ, L"one\0\0", 10);
    PlatformHooks::FailCall("SafeArrayCreateVector", 1, ERROR_OUTOFMEMORY);
    EXPECT_EQ(0, Query(TestPath, L"m"));
    EXPECT_EQ(7, type.lVal);
    EXPECT_EQ(VT_EMPTY, data.vt);
    EXPECT_TRUE(trace.Has(L"could not initialize safe array with multi string"));
}

TEST_F(NetRegistryTest, QueryOfAnExpandStringReturnsItsTypeAndNothingInTheData)
{
    WriteRaw(TestSubkey, L"x", REG_EXPAND_SZ, L"%a%", 8);
    EXPECT_EQ(0, Query(TestPath, L"x"));
    EXPECT_EQ(2, type.lVal);
    EXPECT_EQ(VT_EMPTY, data.vt);
    EXPECT_TRUE(trace.Has(L"Unhandled query registry type 2"));
}

TEST_F(NetRegistryTest, QueryOfATypeThatIsNotCarriedLeavesTheDataAsItCame)
{
    WriteRaw(TestSubkey, L"b", REG_BINARY, L"x", 2);
    data = L"kept";
    EXPECT_EQ(0, object->QueryRegistry(_bstr_t(L"b"), _bstr_t(TestPath), &type, &data));
    EXPECT_EQ(3, type.lVal);
    EXPECT_STREQ(L"kept", data.bstrVal);
}

TEST_F(NetRegistryTest, QueryOfANoneValueTellsTypeZero)
{
    WriteRaw(TestSubkey, L"n", REG_NONE, L"x", 2);
    EXPECT_EQ(0, Query(TestPath, L"n"));
    EXPECT_EQ(VT_I4, type.vt);
    EXPECT_EQ(0, type.lVal);
    EXPECT_TRUE(trace.Has(L"Unhandled query registry type 0"));
}

TEST_F(NetRegistryTest, QueryOfAMissingKeyOrValueReturnsTwoAndTouchesNoVariant)
{
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, Query(TestPath, L"x"));
    EXPECT_EQ(VT_EMPTY, type.vt);
    EXPECT_TRUE(trace.Has(L"could not open " + std::wstring(TestPath)));
    WriteRaw(TestSubkey, L"other", REG_SZ, L"", 2);
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, Query(TestPath, L"x"));
    EXPECT_TRUE(trace.Has(L"could not read " + std::wstring(TestPath) + L"\\x"));
}

TEST_F(NetRegistryTest, PathsWithoutARootOrWithARootInLowerCaseReturn160)
{
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Query(L"", L"x"));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Query(L"HKLM", L"x"));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Query(L"hkey_local_machine\\software", L"x"));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, object->QueryRegistry(nullptr, nullptr, &type, &data));
}

TEST_F(NetRegistryTest, QueryWithANullVariantReturns87)
{
    EXPECT_EQ(ERROR_INVALID_PARAMETER, object->QueryRegistry(_bstr_t(L""), _bstr_t(TestPath), nullptr, &data));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, object->QueryRegistry(_bstr_t(L""), _bstr_t(TestPath), &type, nullptr));
}

TEST_F(NetRegistryTest, QueryOpensWithReadAccessAndReturnsEachFailure)
{
    WriteRaw(TestSubkey, L"d", REG_SZ, L"x", 4);
    REGSAM access = 0;
    RegOpenKeyExWHook::Replace(
        [&access](HKEY root, LPCWSTR name, DWORD options, REGSAM wanted, PHKEY key)
        {
            access = wanted;
            return RegOpenKeyExWHook::Real(root, name, options, wanted, key);
        });
    EXPECT_EQ(0, Query(TestPath, L"d"));
    EXPECT_EQ(0x20019u, access);
    PlatformHooks::FailCall("RegOpenKeyExW", 1, 1018);
    EXPECT_EQ(1018, Query(TestPath, L"d"));
    for (const int nth : {1, 2})
    {
        PlatformHooks::FailCall("RegQueryValueExW", nth, 1018);
        EXPECT_EQ(1018, Query(TestPath, L"d")) << nth;
    }
    EXPECT_EQ(0, Query(TestPath, L"d"));
}

// --- SetRegistry ---

TEST_F(NetRegistryTest, SetWritesTextWithItsTerminator)
{
    EXPECT_EQ(0, Set(TestPath, L"v", 1L, L"text"));
    const Raw raw = ReadRaw(L"v");
    EXPECT_EQ(static_cast<DWORD>(REG_SZ), raw.type);
    EXPECT_EQ(BytesOf(std::wstring_view(L"text\0", 5)), raw.data);
}

TEST_F(NetRegistryTest, SetWritesNumbersWhateverTheVariantsType)
{
    EXPECT_EQ(0, Set(TestPath, L"d", 4L, 77L));
    EXPECT_EQ((std::vector<BYTE>{77, 0, 0, 0}), ReadRaw(L"d").data);
    EXPECT_EQ(static_cast<DWORD>(REG_DWORD), ReadRaw(L"d").type);
    // Zeroed by hand: a variant made from a short leaves the upper half of the 32 bits that are read as it was.
    VARIANT shortFour{};
    shortFour.vt = VT_I2;
    shortFour.iVal = 4;
    EXPECT_EQ(0, Set(TestPath, L"d", shortFour, 1.0));
    EXPECT_EQ((std::vector<BYTE>{0, 0, 0, 0}), ReadRaw(L"d").data);
    EXPECT_EQ(0, Set(TestPath, L"q", 11L, _variant_t(0x0102030405060708ULL)));
    EXPECT_EQ((std::vector<BYTE>{8, 7, 6, 5, 4, 3, 2, 1}), ReadRaw(L"q").data);
    EXPECT_EQ(static_cast<DWORD>(REG_QWORD), ReadRaw(L"q").type);
}

TEST_F(NetRegistryTest, SetWritesTwoNamesJoinedByACommaAsAMultiString)
{
    EXPECT_EQ(0, Set(TestPath, L"m", 7L, L"one,two"));
    const Raw raw = ReadRaw(L"m");
    EXPECT_EQ(static_cast<DWORD>(REG_MULTI_SZ), raw.type);
    EXPECT_EQ(BytesOf(std::wstring_view(L"one\0two\0\0", 9)), raw.data);
}

TEST_F(NetRegistryTest, SetOfAMultiStringLosesCommaBytesOfWideCharacters)
{
    EXPECT_EQ(0, Set(TestPath, L"m", 7L, L"\u2C41"));
    EXPECT_EQ((std::vector<BYTE>{0x41, 0, 0, 0, 0, 0}), ReadRaw(L"m").data);
}

TEST_F(NetRegistryTest, SetOutsideTheListReturnsFiveAndDoesNotTouchTheRegistry)
{
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(OtherPath, L"v", 1L, L"x"));
    EXPECT_FALSE(KeyExists(OtherSubkey));
    EXPECT_EQ(0, PlatformHooks::Calls("RegCreateKeyExW"));
    EXPECT_TRUE(trace.Has(L"Not allowed to write to '" + std::wstring(OtherPath) + L"' branch"));
}

TEST_F(NetRegistryTest, SetBehindANulInThePathIsRefusedByWhatTheRegistryWouldSee)
{
    const std::wstring path = std::wstring(OtherPath) + L'\0' + L"hkey_current_user";
    const BSTR text = SysAllocStringLen(path.data(), static_cast<UINT>(path.size()));
    EXPECT_EQ(ERROR_ACCESS_DENIED, object->SetRegistry(_bstr_t(L"v"), text, _variant_t(1L), _variant_t(L"x")));
    SysFreeString(text);
    EXPECT_FALSE(KeyExists(OtherSubkey));
}

TEST_F(NetRegistryTest, SetBelowAKeyWhoseNameHoldsABranchPasses)
{
    const std::wstring path = std::wstring(OtherPath) + L"\\hkey_current_user";
    EXPECT_EQ(0, Set(path.c_str(), L"v", 1L, L"x"));
    EXPECT_TRUE(KeyExists(OtherSubkey));
}

TEST_F(NetRegistryTest, SetWithTheRootInLowerCasePassesTheListAndReturns160)
{
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Set(L"hkey_local_machine\\software\\qrls\\sorvane\\ProxyTest", L"v", 1L, L"x"));
}

TEST_F(NetRegistryTest, SetOfAnUnhandledTypeReturns87WithTheKeyCreated)
{
    EXPECT_EQ(ERROR_INVALID_PARAMETER, Set(TestPath, L"v", 3L, L"x"));
    EXPECT_TRUE(KeyExists(TestSubkey));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ReadRaw(L"v").error);
    EXPECT_TRUE(trace.Has(L"unhandled type (3 was passed in)"));
    EXPECT_TRUE(trace.Has(L"could not set " + std::wstring(TestPath) + L"\\v Error 87"));
}

TEST_F(NetRegistryTest, SetDropsTheResultOfAFailingWriteExceptForMultiStrings)
{
    const struct
    {
        long type;
        HRESULT result;
    } rows[] = {{1, 0}, {4, 0}, {11, 0}, {7, 1018}};
    for (const auto& row : rows)
    {
        PlatformHooks::FailCall("RegSetValueExW", 1, 1018);
        EXPECT_EQ(row.result, Set(TestPath, L"v", row.type, L"x")) << row.type;
    }
    EXPECT_EQ(1, trace.Count(L"could not set "));
}

TEST_F(NetRegistryTest, SetCreatesWithWriteAccessAndReturnsAFailureSilently)
{
    REGSAM access = 0;
    RegCreateKeyExWHook::Replace(
        [&access](HKEY root, LPCWSTR name, DWORD reserved, LPWSTR cls, DWORD options, REGSAM wanted,
                  LPSECURITY_ATTRIBUTES security, PHKEY key, LPDWORD made)
        {
            access = wanted;
            return RegCreateKeyExWHook::Real(root, name, reserved, cls, options, wanted, security, key, made);
        });
    EXPECT_EQ(0, Set(TestPath, L"v", 1L, L"x"));
    EXPECT_EQ(0x20006u, access);
    trace.Clear();
    PlatformHooks::FailCall("RegCreateKeyExW", 1, 1018);
    EXPECT_EQ(1018, Set(TestPath, L"v", 1L, L"x"));
    EXPECT_FALSE(trace.Has(L"could not set"));
}

TEST_F(NetRegistryTest, SetOfTextsTakesABstrByReferenceAndTreatsNullAsEmpty)
{
    BSTR text = SysAllocString(L"referred");
    VARIANT reference;
    reference.vt = VT_BSTR | VT_BYREF;
    reference.pbstrVal = &text;
    EXPECT_EQ(0, object->SetRegistry(_bstr_t(L"v"), _bstr_t(TestPath), _variant_t(1L), reference));
    EXPECT_EQ(BytesOf(std::wstring_view(L"referred\0", 9)), ReadRaw(L"v").data);
    SysFreeString(text);
    text = nullptr;
    EXPECT_EQ(0, object->SetRegistry(_bstr_t(L"v"), _bstr_t(TestPath), _variant_t(7L), reference));
    EXPECT_EQ(std::vector<BYTE>(4, 0), ReadRaw(L"v").data);
    reference.pbstrVal = nullptr;
    EXPECT_EQ(ERROR_INVALID_PARAMETER,
              object->SetRegistry(_bstr_t(L"v"), _bstr_t(TestPath), _variant_t(1L), reference));
}

TEST_F(NetRegistryTest, SetFollowsNoPayloadThatIsNoBstr)
{
    for (const int variantType : AllVariantTypes())
    {
        VARIANT contents;
        contents.vt = static_cast<VARTYPE>(variantType);
        contents.llVal = 0x0123456789ABCDEF; // no address that can be read
        if (variantType == VT_BSTR || variantType == (VT_BSTR | VT_BYREF))
        {
            continue;
        }
        for (const long registryType : {1L, 7L})
        {
            ASSERT_EQ(ERROR_INVALID_PARAMETER,
                      object->SetRegistry(_bstr_t(L"v"), _bstr_t(TestPath), _variant_t(registryType), contents))
                << variantType;
        }
        ASSERT_EQ(0, object->SetRegistry(_bstr_t(L"d"), _bstr_t(TestPath), _variant_t(4L), contents)) << variantType;
        ASSERT_EQ((std::vector<BYTE>{0xEF, 0xCD, 0xAB, 0x89}), ReadRaw(L"d").data) << variantType;
        ASSERT_EQ(0, object->SetRegistry(_bstr_t(L"q"), _bstr_t(TestPath), _variant_t(11L), contents)) << variantType;
        // As the type: its 32-bit value is no type that is carried.
        ASSERT_EQ(ERROR_INVALID_PARAMETER,
                  object->SetRegistry(_bstr_t(L"v"), _bstr_t(TestPath), contents, _variant_t(L"x")))
            << variantType;
    }
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, ReadRaw(L"v").error);
}

TEST_F(NetRegistryTest, SetWorksWithAnEmptyAndANullValueName)
{
    EXPECT_EQ(0, Set(TestPath, L"", 4L, 5L));
    EXPECT_EQ((std::vector<BYTE>{5, 0, 0, 0}), ReadRaw(L"").data);
    EXPECT_EQ(0, object->SetRegistry(nullptr, _bstr_t(TestPath), _variant_t(4L), _variant_t(6L)));
    EXPECT_EQ((std::vector<BYTE>{6, 0, 0, 0}), ReadRaw(nullptr).data);
}

// --- DeleteRegistry ---

TEST_F(NetRegistryTest, DeleteOfAValueIsRefusedWithFiveBecauseOfTheReadOnlyHandle)
{
    WriteRaw(TestSubkey, L"v", REG_SZ, L"x", 4);
    EXPECT_EQ(ERROR_ACCESS_DENIED, object->DeleteRegistry(_bstr_t(L"v"), _bstr_t(TestPath)));
    EXPECT_EQ(0, ReadRaw(L"v").error);
    EXPECT_TRUE(trace.Has(L"could not delete " + std::wstring(TestPath) + L"\\v Error 5"));
}

TEST_F(NetRegistryTest, DeleteAsksForReadAccess)
{
    WriteRaw(TestSubkey, L"v", REG_SZ, L"x", 4);
    REGSAM access = 0;
    RegOpenKeyExWHook::Replace(
        [&access](HKEY root, LPCWSTR name, DWORD options, REGSAM wanted, PHKEY key)
        {
            access = wanted;
            return RegOpenKeyExWHook::Real(root, name, options, KEY_ALL_ACCESS, key);
        });
    EXPECT_EQ(0, object->DeleteRegistry(_bstr_t(L"v"), _bstr_t(TestPath)));
    EXPECT_EQ(0x20019u, access);
}

TEST_F(NetRegistryTest, DeleteOutsideTheListReturnsFiveAndDoesNotOpenTheKey)
{
    WriteRaw(OtherSubkey, L"v", REG_SZ, L"x", 4);
    const int opened = PlatformHooks::Calls("RegOpenKeyExW");
    EXPECT_EQ(ERROR_ACCESS_DENIED, object->DeleteRegistry(_bstr_t(L"v"), _bstr_t(OtherPath)));
    EXPECT_EQ(opened, PlatformHooks::Calls("RegOpenKeyExW"));
    EXPECT_TRUE(trace.Has(L"    not allowed to write to '" + std::wstring(OtherPath) + L"' branch"));
}

TEST_F(NetRegistryTest, DeleteInAMissingKeyReturnsTwo)
{
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, object->DeleteRegistry(_bstr_t(L"v"), _bstr_t(TestPath)));
    EXPECT_TRUE(trace.Has(L"could not open " + std::wstring(TestPath)));
}

// --- DeleteRegistryNode ---

TEST_F(NetRegistryTest, DeleteNodeRemovesTheKeyWithEverythingBelowIt)
{
    WriteRaw((std::wstring(TestSubkey) + L"\\a\\b").c_str(), L"v", REG_SZ, L"x", 4);
    EXPECT_EQ(0, object->DeleteRegistryNode(_bstr_t(TestPath)));
    EXPECT_FALSE(KeyExists(TestSubkey));
    EXPECT_TRUE(trace.Has(L"successfully deleted the key and subkeys for the node " + std::wstring(TestPath)));
}

TEST_F(NetRegistryTest, DeleteNodeOpensTheRootWithReadAccess)
{
    WriteRaw(TestSubkey, L"v", REG_SZ, L"x", 4);
    std::vector<std::pair<std::wstring, REGSAM>> opened;
    RegOpenKeyExWHook::Replace(
        [&opened](HKEY root, LPCWSTR name, DWORD options, REGSAM wanted, PHKEY key)
        {
            if (root == HKEY_LOCAL_MACHINE)
            {
                opened.emplace_back(name, wanted);
            }
            return RegOpenKeyExWHook::Real(root, name, options, wanted, key);
        });
    EXPECT_EQ(0, object->DeleteRegistryNode(_bstr_t(TestPath)));
    ASSERT_FALSE(opened.empty());
    EXPECT_EQ(L"", opened[0].first);
    EXPECT_EQ(0x20019u, opened[0].second);
}

TEST_F(NetRegistryTest, DeleteNodeOutsideTheListReturnsFive)
{
    WriteRaw(OtherSubkey, L"v", REG_SZ, L"x", 4);
    EXPECT_EQ(ERROR_ACCESS_DENIED, object->DeleteRegistryNode(_bstr_t(OtherPath)));
    EXPECT_TRUE(KeyExists(OtherSubkey));
    EXPECT_TRUE(trace.Has(L"not allowed to write to '" + std::wstring(OtherPath) + L"' branch"));
}

TEST_F(NetRegistryTest, DeleteNodeWithoutABackslashReturns160AndDeletesNothing)
{
    const int deleted = PlatformHooks::Calls("RegDeleteTreeW");
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, object->DeleteRegistryNode(_bstr_t(L"HKEY_CURRENT_USER")));
    EXPECT_EQ(deleted, PlatformHooks::Calls("RegDeleteTreeW"));
    EXPECT_TRUE(trace.Has(L"could not open 'HKEY_CURRENT_USER' path"));
}

TEST_F(NetRegistryTest, DeleteNodeThatIsMissingReturnsTwo)
{
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, object->DeleteRegistryNode(_bstr_t(TestPath)));
    EXPECT_TRUE(trace.Has(L"could not delete " + std::wstring(TestPath)));
}

TEST_F(NetRegistryTest, DeleteNodeReturnsEachFailure)
{
    WriteRaw(TestSubkey, L"v", REG_SZ, L"x", 4);
    PlatformHooks::FailCall("RegOpenKeyExW", 1, 1018);
    EXPECT_EQ(1018, object->DeleteRegistryNode(_bstr_t(TestPath)));
    PlatformHooks::FailCall("RegDeleteTreeW", 1, 1019);
    EXPECT_EQ(1019, object->DeleteRegistryNode(_bstr_t(TestPath)));
    EXPECT_TRUE(KeyExists(TestSubkey));
    EXPECT_EQ(0, object->DeleteRegistryNode(_bstr_t(TestPath)));
}

TEST_F(NetRegistryTest, LinesBearTheRegistrysSourceRefusalsAndFailuresLevelTwo)
{
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(OtherPath, L"v", 1L, L"x"));
    EXPECT_TRUE(trace.Has(Log::Source::Registry, 2, L"Not allowed to write to '"));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, Query(OtherPath, L"v"));
    EXPECT_TRUE(trace.Has(Log::Source::Registry, 2, L"could not open "));
    EXPECT_EQ(0, Set(TestPath, L"v", 1L, L"x"));
    EXPECT_EQ(0, object->DeleteRegistryNode(_bstr_t(TestPath)));
    EXPECT_TRUE(trace.Has(Log::Source::Registry, 4, L"successfully deleted the key and subkeys"));
}

// --- RefreshDNSCache ---

class RefreshDnsCacheTest : public testing::Test
{
protected:
    void PretendVersion(bool tenOrHigher)
    {
        VerifyVersionInfoWHook::Replace(
            [this, tenOrHigher](LPOSVERSIONINFOEXW version, DWORD mask, DWORDLONG) -> BOOL
            {
                asked = *version;
                askedMask = mask;
                SetLastError(ERROR_OLD_WIN_VERSION);
                return tenOrHigher;
            });
    }
    TraceLines trace;
    SleepClock clock;
    FakeServices services{clock};
    TestObject<CNetRegistry> object = MakeTestObject<CNetRegistry>();
    OSVERSIONINFOEXW asked{};
    DWORD askedMask = 0;
};

TEST_F(RefreshDnsCacheTest, FromVersionTenOnItReturnsZeroWithoutTouchingAnyService)
{
    PretendVersion(true);
    services.Add(L"Dnscache");
    EXPECT_EQ(0, object->RefreshDNSCache());
    EXPECT_TRUE(services.journal.empty());
    EXPECT_EQ(10u, asked.dwMajorVersion);
    EXPECT_EQ(0u, asked.dwMinorVersion);
    EXPECT_EQ(0u, asked.wServicePackMajor);
    EXPECT_EQ(static_cast<DWORD>(VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR), askedMask);
}

TEST_F(RefreshDnsCacheTest, BeforeVersionTenTheCacheServiceGetsTheParameterChangeControl)
{
    PretendVersion(false);
    services.Add(L"Dnscache");
    EXPECT_EQ(0, object->RefreshDNSCache());
    EXPECT_EQ((std::vector<std::wstring>{L"manager 0xf003f", L"open Dnscache 0xf01ff", L"control Dnscache 6"}),
              services.journal);
    EXPECT_EQ(0, services.OpenHandles());
}

TEST_F(RefreshDnsCacheTest, EachFailureIsTracedAndReturned)
{
    PretendVersion(false);
    services.Add(L"Dnscache");
    const struct
    {
        const char* call;
        const wchar_t* line;
    } rows[] = {{"OpenSCManagerW", L"OpenSCManager() failed to get handle."},
                {"OpenServiceW", L"OpenService() failed to open service"},
                {"ControlService", L"ControlService() failed to control service"}};
    for (const auto& row : rows)
    {
        PlatformHooks::FailCall(row.call, 1, 1234);
        EXPECT_EQ(1234, object->RefreshDNSCache()) << row.call;
        EXPECT_TRUE(trace.Has(row.line)) << row.call;
        EXPECT_EQ(0, services.OpenHandles());
    }
}
} // namespace
