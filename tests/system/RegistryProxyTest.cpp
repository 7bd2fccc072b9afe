// The registry proxy of the running service, from another process.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>

#include <random>
#include <string>
#include <vector>

#include "Halcyd/WriteAllowList.h"
#include "tests/support/RegistryExport.h"
#include "tests/support/RunningService.h"

namespace
{
constexpr wchar_t OwnSubkey[] = L"SOFTWARE\\QRLS\\Sorvane\\SystemTest";
constexpr wchar_t OwnPath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\SystemTest";
constexpr wchar_t OutsideSubkey[] = L"SOFTWARE\\OutsideTheList";
constexpr wchar_t OutsidePath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\OutsideTheList";

class RegistryProxy : public RunningServiceTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RunningServiceTest::SetUp());
        Activate(CLSID_NetRegistry, registry);
        WriteText(OutsideSubkey, L"text", L"outside");
    }
    static void WriteText(const wchar_t* subkey, const wchar_t* value, const wchar_t* text)
    {
        ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, subkey, value, REG_SZ, text,
                                     static_cast<DWORD>((wcslen(text) + 1) * sizeof(wchar_t))));
    }
    HRESULT Set(const wchar_t* path, const wchar_t* value, const _variant_t& type, const _variant_t& data)
    {
        return registry->SetRegistry(_bstr_t(value), _bstr_t(path), type, data);
    }
    HRESULT Query(const wchar_t* path, const wchar_t* value, _variant_t& type, _variant_t& data)
    {
        type.Clear();
        data.Clear();
        return registry->QueryRegistry(_bstr_t(value), _bstr_t(path), &type, &data);
    }
    // Everything below HKEY_LOCAL_MACHINE\SOFTWARE but the product's own branch, which the service itself changes.
    static RegistryExport Outside()
    {
        RegistryExport all = ExportRegistry(HKEY_LOCAL_MACHINE, L"SOFTWARE");
        std::erase_if(all, [](const auto& key) { return LowerCaseCopy(key.first).starts_with(L"qrls"); });
        return all;
    }

    INetRegistryPtr registry;
};

TEST_F(RegistryProxy, EachCarriedTypeIsWrittenAndComesBackAcrossProcesses)
{
    _variant_t type;
    _variant_t data;
    EXPECT_EQ(0, Set(OwnPath, L"text", 1L, L"hello"));
    EXPECT_EQ(0, Query(OwnPath, L"text", type, data));
    EXPECT_EQ(1, type.lVal);
    EXPECT_STREQ(L"hello", data.bstrVal);

    EXPECT_EQ(0, Set(OwnPath, L"number", 4L, 77L));
    EXPECT_EQ(0, Query(OwnPath, L"number", type, data));
    EXPECT_EQ(VT_I4, data.vt);
    EXPECT_EQ(77, data.lVal);

    EXPECT_EQ(0, Set(OwnPath, L"large", 11L, _variant_t(0x0102030405060708ULL)));
    EXPECT_EQ(0, Query(OwnPath, L"large", type, data));
    EXPECT_EQ(VT_UI8, data.vt);
    EXPECT_EQ(0x0102030405060708ULL, data.ullVal);

    EXPECT_EQ(0, Set(OwnPath, L"list", 7L, L"one,two"));
    EXPECT_EQ(0, Query(OwnPath, L"list", type, data));
    ASSERT_EQ(VT_ARRAY | VT_BSTR, data.vt);
    ASSERT_EQ(2u, data.parray->rgsabound[0].cElements);
    EXPECT_STREQ(L"two", static_cast<BSTR*>(data.parray->pvData)[1]);
}

TEST_F(RegistryProxy, ReadingIsNotBoundToTheList)
{
    _variant_t type;
    _variant_t data;
    EXPECT_EQ(0, Query(OutsidePath, L"text", type, data));
    EXPECT_STREQ(L"outside", data.bstrVal);
}

TEST_F(RegistryProxy, NothingOutsideTheListChanges)
{
    const RegistryExport before = Outside();
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(OutsidePath, L"text", 1L, L"changed"));
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\New", L"text", 1L, L"changed"));
    EXPECT_EQ(ERROR_ACCESS_DENIED, registry->DeleteRegistry(_bstr_t(L"text"), _bstr_t(OutsidePath)));
    EXPECT_EQ(ERROR_ACCESS_DENIED, registry->DeleteRegistryNode(_bstr_t(OutsidePath)));
    EXPECT_EQ(ERROR_ACCESS_DENIED, registry->DeleteRegistryNode(_bstr_t(L"HKLM\\SOFTWARE")));
    EXPECT_EQ(std::vector<std::wstring>{}, DifferRegistry(before, Outside()));
}

TEST_F(RegistryProxy, UnhandledTypeReturns87WithTheKeyCreated)
{
    EXPECT_EQ(ERROR_INVALID_PARAMETER, Set(OwnPath, L"binary", 3L, L"x"));
    EXPECT_FALSE(ExportRegistry(HKEY_LOCAL_MACHINE, OwnSubkey).empty());
}

TEST_F(RegistryProxy, ValueCannotBeDeletedAndANodeCan)
{
    EXPECT_EQ(0, Set((std::wstring(OwnPath) + L"\\a\\b").c_str(), L"text", 1L, L"x"));
    EXPECT_EQ(ERROR_ACCESS_DENIED,
              registry->DeleteRegistry(_bstr_t(L"text"), _bstr_t((std::wstring(OwnPath) + L"\\a\\b").c_str())));
    EXPECT_EQ(0, registry->DeleteRegistryNode(_bstr_t(OwnPath)));
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, OwnSubkey, 0, KEY_READ, &key));
}

TEST_F(RegistryProxy, EveryVariantTypeInEveryArgumentLeavesTheServiceAndTheRegistryWhole)
{
    const RegistryExport before = Outside();
    for (int type = 0; type < 0x50; ++type)
    {
        for (const int flags : {0, 0x2000})
        {
            VARIANT odd{};
            odd.vt = static_cast<VARTYPE>(type | flags);
            // What cannot cross to another process fails on the way; what can is refused or taken by the rules.
            for (const long registryType : {1L, 4L, 7L, 11L})
            {
                static_cast<void>(
                    registry->SetRegistry(_bstr_t(L"odd"), _bstr_t(OwnPath), _variant_t(registryType), odd));
            }
            static_cast<void>(registry->SetRegistry(_bstr_t(L"odd"), _bstr_t(OwnPath), odd, _variant_t(L"x")));
            static_cast<void>(registry->SetRegistry(_bstr_t(L"odd"), _bstr_t(OutsidePath), odd, odd));
        }
    }
    EXPECT_EQ(std::vector<std::wstring>{}, DifferRegistry(before, Outside()));
    EXPECT_EQ(0, Set(OwnPath, L"text", 1L, L"still here"));
}

TEST_F(RegistryProxy, NullAndHugeTextsAreTakenOrRefused)
{
    EXPECT_EQ(ERROR_ACCESS_DENIED, registry->SetRegistry(nullptr, nullptr, _variant_t(1L), _variant_t(L"x")));
    EXPECT_EQ(ERROR_ACCESS_DENIED, registry->DeleteRegistry(nullptr, nullptr));
    EXPECT_EQ(ERROR_ACCESS_DENIED, registry->DeleteRegistryNode(nullptr));
    const std::wstring huge(1'000'000, L'x');
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(huge.c_str(), L"v", 1L, L"x"));
    EXPECT_EQ(0, Set(OwnPath, L"huge", 1L, huge.c_str()));
    _variant_t type;
    _variant_t data;
    EXPECT_EQ(0, Query(OwnPath, L"huge", type, data));
    EXPECT_EQ(huge.size(), SysStringLen(data.bstrVal));
}

TEST_F(RegistryProxy, TenThousandPathsAreRefusedOrPassedAsTheListSays)
{
    const RegistryExport before = Outside();
    std::mt19937 random(20261121);
    const std::vector<std::wstring> pieces{L"HKEY_LOCAL_MACHINE",
                                           L"hkey_local_machine",
                                           L"HKLM",
                                           L"HKEY_CURRENT_USER",
                                           L"\\",
                                           L"SOFTWARE",
                                           L"\\SOFTWARE\\QRLS",
                                           L"\\software\\qrl",
                                           L"Other",
                                           L"\\SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters",
                                           L"x",
                                           L"\u212A"};
    int passed = 0;
    for (int number = 0; number < 10'000; ++number)
    {
        std::wstring path;
        for (unsigned count = random() % 5; count > 0; --count)
        {
            path += pieces[random() % pieces.size()];
        }
        // No such key anywhere: a path that passes gives the registry's own answer, which is never 5 then.
        path += L"\\no such key";
        const bool allowed = WriteAllowList::Allows(WriteAllowList::Branches(), path);
        const HRESULT result = registry->DeleteRegistry(_bstr_t(L"no such value"), _bstr_t(path.c_str()));
        ASSERT_EQ(allowed, result != ERROR_ACCESS_DENIED) << path.c_str() << " gave " << result;
        passed += allowed ? 1 : 0;
    }
    EXPECT_GT(passed, 100);
    EXPECT_LT(passed, 9'900);
    EXPECT_EQ(std::vector<std::wstring>{}, DifferRegistry(before, Outside()));
}

// The Windows of the tests is a version 10, and the service is told so only because its manifest names that system.
TEST_F(RegistryProxy, RefreshOfTheNameCacheReturnsZeroFromVersionTenOn)
{
    EXPECT_EQ(0, registry->RefreshDNSCache());
}
} // namespace
