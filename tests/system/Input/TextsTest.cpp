// Texts of every size and make in every text argument: empty, 64 Ki and 1 Mi characters, with a NUL inside.

#include "Input/InputMachine.h"

#include <thread>

#include "tests/support/RegistryExport.h"

namespace
{
constexpr wchar_t kOwnPath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\InputTest";
constexpr wchar_t kOwnSubkey[] = L"SOFTWARE\\QRLS\\Sorvane\\InputTest";
constexpr HRESULT kAdapterNotFound = static_cast<HRESULT>(0x80041017);
constexpr std::size_t k64K = 64 * 1024;
constexpr std::size_t k1M = 1024 * 1024;

std::vector<_bstr_t> OddTexts()
{
    return {_bstr_t(L""),
            LongText(k64K),
            LongText(k1M),
            TextWithNul(),
            _bstr_t(SysAllocStringLen(nullptr, 8), false),
            LongText(300, L'\\'),
            LongText(k64K, L'{'),
            _bstr_t(L"\xD800 lone surrogate")};
}

// A text with something behind its first NUL.
_bstr_t WithTail(const wchar_t* text)
{
    const std::wstring whole = std::wstring(text) + L'\0' + L"tail";
    return _bstr_t(SysAllocStringLen(whole.data(), static_cast<UINT>(whole.size())), false);
}

using Texts = InputTest;

TEST_F(Texts, ThatNameNoAdapterAreNotFoundByEverySetting)
{
    ASSERT_EQ(dns->ConnectNetCfg(ethernet), S_OK);
    _variant_t servers;
    servers.parray = SafeArrayCreateVector(VT_BSTR, 0, 0);
    servers.vt = VT_ARRAY | VT_BSTR;
    const _bstr_t empty(L"");
    BSTR text = nullptr;
    BSTR other = nullptr;
    for (const _bstr_t& odd : OddTexts())
    {
        Check({
            {"ConnectNetCfg", [&] { return dns->ConnectNetCfg(odd); }, kAdapterNotFound},
            {"SetDNS", [&] { return dns->SetDNS(odd, &servers); }, kAdapterNotFound},
            {"GetDNS", [&] { return dns->GetDNS(odd, &servers); }, kAdapterNotFound},
            {"SetWINS", [&] { return dns->SetWINS(odd, empty, empty); }, kAdapterNotFound},
            {"GetWINS", [&] { return dns->GetWINS(odd, &text, &other); }, kAdapterNotFound},
            {"GetDNSSuffixSearchOrder", [&] { return dns->GetDNSSuffixSearchOrder(odd, &servers); }},
            {"SetDNSDomain", [&] { return dns->SetDNSDomain(odd, empty); }, kAdapterNotFound},
            {"GetDNSDomain", [&] { return dns->GetDNSDomain(odd, &text); }, kAdapterNotFound},
            {"EnableDHCP", [&] { return dns->EnableDHCP(odd); }, kAdapterNotFound},
            {"SetGateways", [&] { return dns->SetGateways(odd, &servers, &servers); }, E_UNEXPECTED},
            {"EnableStatic", [&] { return dns->EnableStatic(odd, &servers, &servers); }, kAdapterNotFound},
            {"ReleaseDHCPLease", [&] { return dns->ReleaseDHCPLease(odd); }, kAdapterNotFound},
            {"RenewDHCPLease", [&] { return dns->RenewDHCPLease(odd); }, kAdapterNotFound},
            {"GetDefaultGateway", [&] { return dns->GetDefaultGateway(odd, &text); }, kAdapterNotFound},
            {"GetIpAddress", [&] { return dns->GetIpAddress(odd, &text); }, kAdapterNotFound},
        });
    }
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(other, nullptr);
    // The suffixes are the machine's: no adapter is needed.
    _variant_t suffixes;
    suffixes.parray = SafeArrayCreateVector(VT_BSTR, 0, 1);
    suffixes.vt = VT_ARRAY | VT_BSTR;
    LONG index = 0;
    SafeArrayPutElement(suffixes.parray, &index, _bstr_t(L"suffix.example").GetBSTR());
    EXPECT_EQ(dns->SetDNSSuffixSearchOrder(LongText(k1M), &suffixes), S_OK);
    // A name counts up to its first NUL.
    EXPECT_EQ(dns->EnableDHCP(WithTail(kEthernet)), S_OK);
}

TEST_F(Texts, OfEverySizeAreHandedToTheAdapterOrRefusedByIt)
{
    ASSERT_EQ(dns->ConnectNetCfg(ethernet), S_OK);
    const _bstr_t empty(L"");
    for (const _bstr_t& odd : {empty, LongText(k64K), TextWithNul()})
    {
        // Whatever the setting makes of the text: it is its own result, or the text that comes back.
        const HRESULT wins = dns->SetWINS(ethernet, odd, empty);
        const HRESULT second = dns->SetWINS(ethernet, empty, odd);
        const HRESULT domain = dns->SetDNSDomain(ethernet, odd);
        EXPECT_TRUE(wins >= 0 && wins < 200) << wins;
        EXPECT_TRUE(second >= 0 && second < 200) << second;
        EXPECT_TRUE(domain >= 0 && domain < 200) << domain;
        // In and out: what came in is freed by the service and replaced, however long it was.
        BSTR replaced = odd.copy();
        EXPECT_EQ(dns->GetDefaultGateway(ethernet, &replaced), S_OK);
        EXPECT_STREQ(replaced, L"192.0.2.1");
        SysFreeString(replaced);
        BSTR primary = odd.copy();
        BSTR secondary = odd.copy();
        EXPECT_EQ(dns->GetWINS(ethernet, &primary, &secondary), S_OK);
        SysFreeString(primary);
        SysFreeString(secondary);
    }
    EXPECT_EQ(dns->SetDNSDomain(ethernet, _bstr_t(L"sane.example")), S_OK);
    BSTR back = nullptr;
    EXPECT_EQ(dns->GetDNSDomain(ethernet, &back), S_OK);
    EXPECT_STREQ(back, L"sane.example");
    SysFreeString(back);
}

TEST_F(Texts, InRegistryPathsAndNamesChangeNothingOutsideTheirKey)
{
    const auto outside = []
    {
        RegistryExport all = ExportRegistry(HKEY_LOCAL_MACHINE, L"SOFTWARE");
        std::erase_if(all, [](const auto& key) { return _wcsnicmp(key.first.c_str(), L"qrls", 4) == 0; });
        return all;
    };
    const RegistryExport before = outside();
    const _variant_t text(1L);
    const _variant_t data(L"data");
    const _bstr_t name(L"name");
    _variant_t type;
    _variant_t read;
    for (const _bstr_t& odd : OddTexts())
    {
        // As a path it is no full path, and not on the list.
        EXPECT_NE(registry->QueryRegistry(name, odd, &type, &read), S_OK);
        EXPECT_EQ(registry->SetRegistry(name, odd, text, data), ERROR_ACCESS_DENIED);
        EXPECT_EQ(registry->DeleteRegistry(name, odd), ERROR_ACCESS_DENIED);
        EXPECT_EQ(registry->DeleteRegistryNode(odd), ERROR_ACCESS_DENIED);
        // Below an allowed key it is the system's to take or refuse.
        const _bstr_t below = _bstr_t(kOwnPath) + L"\\" + odd;
        static_cast<void>(registry->SetRegistry(name, below, text, data));
        static_cast<void>(registry->QueryRegistry(name, below, &type, &read));
        read.Clear();
        EXPECT_NE(registry->DeleteRegistry(name, below), S_OK);
        // As a value's name.
        static_cast<void>(registry->SetRegistry(odd, _bstr_t(kOwnPath), text, data));
        static_cast<void>(registry->QueryRegistry(odd, _bstr_t(kOwnPath), &type, &read));
        read.Clear();
        EXPECT_NE(registry->DeleteRegistry(odd, _bstr_t(kOwnPath)), S_OK);
    }
    EXPECT_EQ(DifferRegistry(before, outside()), std::vector<std::wstring>{});
    EXPECT_EQ(registry->DeleteRegistryNode(_bstr_t(kOwnPath)), S_OK);
    EXPECT_TRUE(ExportRegistry(HKEY_LOCAL_MACHINE, kOwnSubkey).empty());
}

TEST_F(Texts, CountUpToTheirFirstNulInTheTestAndInTheRegistry)
{
    const _variant_t text(1L);
    // What lies behind the NUL neither opens the list nor is written.
    const std::wstring smuggled =
        std::wstring(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Outside") + L'\0' + L"\\hkey_current_user";
    const _bstr_t path(SysAllocStringLen(smuggled.data(), static_cast<UINT>(smuggled.size())), false);
    EXPECT_EQ(registry->SetRegistry(_bstr_t(L"name"), path, text, _variant_t(L"x")), ERROR_ACCESS_DENIED);
    EXPECT_EQ(registry->SetRegistry(WithTail(L"name"), WithTail(kOwnPath), text, _variant_t(TextWithNul())), S_OK);
    const RegistryExport own = ExportRegistry(HKEY_LOCAL_MACHINE, kOwnSubkey);
    EXPECT_EQ(TextOfValue(own, L"", L"name"), L"begin");
    ASSERT_EQ(own.size(), 1u);
    EXPECT_EQ(own.begin()->second.size(), 1u);
}

TEST_F(Texts, OfEverySizeComeBackFromTheRegistryAsTheyWereWritten)
{
    _variant_t type;
    _variant_t read;
    for (const std::size_t length : {std::size_t{0}, std::size_t{1}, k64K, k1M})
    {
        for (const long kind : {1L, 7L})
        {
            const _bstr_t written = LongText(length, L'y');
            EXPECT_EQ(registry->SetRegistry(_bstr_t(L"long"), _bstr_t(kOwnPath), _variant_t(kind), _variant_t(written)),
                      S_OK);
            type.Clear();
            read.Clear();
            EXPECT_EQ(registry->QueryRegistry(_bstr_t(L"long"), _bstr_t(kOwnPath), &type, &read), S_OK);
            EXPECT_EQ(type.lVal, kind);
            if (kind == 1)
            {
                ASSERT_EQ(read.vt, VT_BSTR);
                EXPECT_EQ(SysStringLen(read.bstrVal), length);
            }
            else if (length != 0)
            {
                ASSERT_EQ(read.vt, VT_ARRAY | VT_BSTR);
                EXPECT_EQ(SysStringLen(*static_cast<BSTR*>(read.parray->pvData)), length);
            }
        }
    }
}

TEST_F(Texts, ThatNameNoServiceGetTheManagersError)
{
    for (const _bstr_t& odd : OddTexts())
    {
        VARIANT mode{};
        VARIANT start{};
        mode.vt = start.vt = VT_I4;
        mode.lVal = start.lVal = 77;
        EXPECT_GT(services->SetServiceMode(odd, 1, -1), 0);
        EXPECT_GT(services->QueryServiceMode(odd, &mode, &start), 0);
        EXPECT_EQ(mode.lVal, 0); // both are written also after a failure
        EXPECT_EQ(start.lVal, 0);
    }
    VARIANT mode{};
    VARIANT start{};
    mode.vt = start.vt = VT_I4;
    EXPECT_EQ(services->QueryServiceMode(WithTail(kServiceName), &mode, &start), S_OK);
    EXPECT_EQ(mode.lVal, SERVICE_RUNNING);
}

TEST_F(Texts, ThatNameNoAdapterToKeepDisableAllAndComeBackInTheEvent)
{
    const EventConnection sink(monitor);
    for (const _bstr_t& odd : {LongText(k1M), TextWithNul(), _bstr_t(L"")})
    {
        sink->Clear();
        std::jthread disabling(
            [&]
            {
                const ComApartment client;
                EXPECT_EQ(Monitor()->DisableIpBindings(odd, 0), S_OK);
            });
        const auto told = sink->WaitForEvent(enumEventIpBindingsDisabled);
        ASSERT_TRUE(told.has_value());
        EXPECT_EQ(told->number, S_OK);
        EXPECT_EQ(monitor->RestoreIpBindings(), S_OK);
    }
}

TEST_F(Texts, AreAllTheSameToTheSimpleSink)
{
    const ISimpleSinkPtr simple = ActivateSimpleSink();
    ASSERT_TRUE(simple);
    for (const _bstr_t& odd : OddTexts())
    {
        EXPECT_EQ(simple->Test(odd), S_OK);
    }
}
} // namespace
