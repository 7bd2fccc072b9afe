// Variants of every type in every variant argument: the result of that type, or a failure on the way, and nothing else
// changed.

#include "Input/InputMachine.h"

#include <psapi.h>

#include "Input/OddVariants.h"
#include "tests/support/RegistryExport.h"
#include "tests/support/StringArrays.h"

namespace
{
constexpr wchar_t kOwnPath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\InputTest";
constexpr wchar_t kOutsidePath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\InputTestOutside";

// The machine's registry but for the product's own branch, which the service and this test change.
RegistryExport OutsideTheBranch(const wchar_t* hive)
{
    RegistryExport all = ExportRegistry(HKEY_LOCAL_MACHINE, hive);
    std::erase_if(all, [](const auto& key) { return _wcsnicmp(key.first.c_str(), L"qrls", 4) == 0; });
    return all;
}

HRESULT CopyOf(VARIANT from, VARIANT& to)
{
    return VariantCopy(&to, &from);
}

// Hands a copy to a call that gives the variant back: the proxy frees and replaces what it holds or refers to. False
// for what has no copy, which could not be replaced either.
bool GivenBack(const VARIANT& value, const std::function<void(VARIANT&)>& call)
{
    const VARTYPE type = value.vt & VT_TYPEMASK;
    if (type == VT_RECORD || ((value.vt & VT_ARRAY) != 0 && (type == VT_DISPATCH || type == VT_UNKNOWN)))
    {
        return false;
    }
    VARIANT from = value;
    VARIANT copy{};
    VARIANT target{}; // of a reference
    if ((from.vt & VT_BYREF) == 0 || from.byref == nullptr)
    {
        if (FAILED(VariantCopy(&copy, &from)))
        {
            return false;
        }
    }
    else if (FAILED(VariantCopyInd(&target, &from)))
    {
        return false;
    }
    else if (from.vt == (VT_VARIANT | VT_BYREF))
    {
        copy.vt = from.vt;
        copy.pvarVal = &target;
    }
    else
    {
        copy.vt = static_cast<VARTYPE>(target.vt | VT_BYREF);
        copy.byref = target.vt == VT_DECIMAL ? static_cast<void*>(&target.decVal) : &target.llVal;
    }
    call(copy);
    VariantClear(&copy);
    VariantClear(&target);
    return true;
}

class Variants : public InputTest
{
protected:
    OddVariants odds;
};

TEST_F(Variants, InSettersAreRefusedAndNoAdapterIsTouched)
{
    ASSERT_EQ(dns->ConnectNetCfg(ethernet), S_OK);
    _variant_t good = TextArray({L"192.0.2.60"});
    ASSERT_EQ(dns->SetDNS(ethernet, &good), S_OK);
    const std::string before = Lab(L"dump");
    int given = 0;
    odds.ForEach(
        [&](const OddVariant& odd)
        {
            given += GivenBack(odd.value,
                               [&](VARIANT& copy) { EXPECT_TRUE(FAILED(dns->SetDNS(ethernet, &copy))) << odd.name; })
                         ? 1
                         : 0;
            GivenBack(odd.value, [&](VARIANT& copy)
                      { EXPECT_TRUE(FAILED(dns->SetDNSSuffixSearchOrder(ethernet, &copy))) << odd.name; });
            VARIANT only = odd.value; // these two take and give nothing back
            EXPECT_TRUE(FAILED(dns->EnableStatic(ethernet, &only, &good))) << odd.name;
            EXPECT_TRUE(FAILED(dns->EnableStatic(ethernet, &good, &only))) << odd.name;
            EXPECT_TRUE(FAILED(dns->SetGateways(ethernet, &only, &good))) << odd.name;
        });
    EXPECT_GT(given, 100);
    EXPECT_EQ(Lab(L"dump"), before);
}

TEST_F(Variants, StringArraysOfOddShapesAreTakenOrRefusedWhole)
{
    ASSERT_EQ(dns->ConnectNetCfg(ethernet), S_OK);
    SAFEARRAYBOUND square[] = {{2, 0}, {2, 0}};
    SAFEARRAYBOUND shifted[] = {{2, -5}};
    for (SAFEARRAY* const array : {static_cast<SAFEARRAY*>(nullptr), SafeArrayCreate(VT_BSTR, 2, square),
                                   SafeArrayCreate(VT_BSTR, 1, shifted), SafeArrayCreateVector(VT_BSTR, 0, 20'000)})
    {
        VARIANT value{};
        value.vt = VT_ARRAY | VT_BSTR;
        value.parray = array;
        const HRESULT servers = dns->SetDNS(ethernet, &value);
        const HRESULT suffixes = dns->SetDNSSuffixSearchOrder(ethernet, &value);
        const HRESULT addresses = dns->EnableStatic(ethernet, &value, &value);
        // Results of the setting itself are small positive numbers.
        for (const HRESULT result : {servers, suffixes, addresses})
        {
            EXPECT_TRUE(FAILED(result) || result < 200) << std::hex << result;
        }
        VariantClear(&value);
    }
}

TEST_F(Variants, InGettersAreReplacedByTheAnswerOrFailOnTheWay)
{
    ASSERT_EQ(dns->ConnectNetCfg(ethernet), S_OK);
    _variant_t good = TextArray({L"192.0.2.60"});
    ASSERT_EQ(dns->SetDNS(ethernet, &good), S_OK);
    int answered = 0;
    odds.ForEach(
        [&](const OddVariant& odd)
        {
            VARIANT copy{};
            const bool mine = SUCCEEDED(CopyOf(odd.value, copy));
            if (!mine)
            {
                return; // what cannot be copied cannot be replaced either
            }
            const HRESULT servers = dns->GetDNS(ethernet, &copy);
            EXPECT_TRUE(FAILED(servers) || copy.vt == (VT_ARRAY | VT_BSTR)) << odd.name;
            answered += SUCCEEDED(servers) ? 1 : 0;
            VariantClear(&copy);
            if (SUCCEEDED(CopyOf(odd.value, copy)))
            {
                const HRESULT suffixes = dns->GetDNSSuffixSearchOrder(ethernet, &copy);
                EXPECT_TRUE(FAILED(suffixes) || suffixes == S_OK) << odd.name;
                VariantClear(&copy);
            }
        });
    EXPECT_GT(answered, 20);
}

TEST_F(Variants, InTheRegistryProxyFollowTheRulesOfTheirNumbersAndTexts)
{
    const RegistryExport software = OutsideTheBranch(L"SOFTWARE");
    const RegistryExport services_ =
        ExportRegistry(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Control\\Session Manager");
    const _bstr_t own(kOwnPath);
    const _bstr_t outside(kOutsidePath);
    const _bstr_t name(L"odd");
    odds.ForEach(
        [&](const OddVariant& odd)
        {
            const bool text =
                odd.value.vt == VT_BSTR || (odd.value.vt == (VT_BSTR | VT_BYREF) && odd.value.pbstrVal != nullptr);
            for (const long type : {1L, 7L})
            {
                const HRESULT result = registry->SetRegistry(name, own, _variant_t(type), odd.value);
                EXPECT_TRUE(FAILED(result) || result == (text ? 0 : ERROR_INVALID_PARAMETER))
                    << odd.name << " as type " << type << " gave " << result;
            }
            for (const long type : {4L, 11L})
            {
                const HRESULT result = registry->SetRegistry(name, own, _variant_t(type), odd.value);
                EXPECT_TRUE(FAILED(result) || result == 0) << odd.name << " as type " << type << " gave " << result;
            }
            const HRESULT asType = registry->SetRegistry(name, own, odd.value, _variant_t(L"x"));
            EXPECT_TRUE(FAILED(asType) || asType == 0 || asType == ERROR_INVALID_PARAMETER) << odd.name << asType;
            const HRESULT refused = registry->SetRegistry(name, outside, odd.value, odd.value);
            EXPECT_TRUE(FAILED(refused) || refused == ERROR_ACCESS_DENIED) << odd.name << refused;
        });
    EXPECT_EQ(DifferRegistry(software, OutsideTheBranch(L"SOFTWARE")), std::vector<std::wstring>{});
    EXPECT_EQ(DifferRegistry(services_, ExportRegistry(HKEY_LOCAL_MACHINE,
                                                       L"SYSTEM\\CurrentControlSet\\Control\\Session Manager")),
              std::vector<std::wstring>{});
}

TEST_F(Variants, InAServiceQueryAreFilledIfTheyArePlainAndRefusedIfTheyHoldPointers)
{
    const _bstr_t name(kServiceName);
    int filled = 0;
    int refused = 0;
    odds.ForEach(
        [&](const OddVariant& odd)
        {
            for (const bool first : {true, false})
            {
                VARIANT good{};
                good.vt = VT_I4;
                GivenBack(odd.value,
                          [&](VARIANT& copy)
                          {
                              const HRESULT result = first ? services->QueryServiceMode(name, &copy, &good)
                                                           : services->QueryServiceMode(name, &good, &copy);
                              EXPECT_TRUE(FAILED(result) || result == 0 || result == ERROR_INVALID_PARAMETER)
                                  << odd.name << " gave " << result;
                              if (result == 0)
                              {
                                  EXPECT_EQ(good.lVal, first ? SERVICE_AUTO_START : SERVICE_RUNNING) << odd.name;
                                  ++filled;
                              }
                              refused += result == ERROR_INVALID_PARAMETER ? 1 : 0;
                          });
            }
        });
    EXPECT_GT(filled, 20);
    EXPECT_GT(refused, 20);
}

TEST_F(Variants, InTheVirtualAdaptersMethodsComeBack)
{
    const _variant_t zero(0L);
    odds.ForEach(
        [&](const OddVariant& odd)
        {
            const VARIANT v = odd.value;
            VARIANT metric{};
            BSTR alias = nullptr;
            static_cast<void>(vnic->DeleteRouteEntry(v));
            static_cast<void>(vnic->CreateRouteEntry(v, v, v, v, v, v, v));
            static_cast<void>(vnic->TunvexSetIpForwardEntry(v, v));
            static_cast<void>(vnic->TunvexUpdateVnicState(v));
            static_cast<void>(vnic->TunvexInitVnicForVista(v, &alias, 0));
            static_cast<void>(vnic->TunvexGetInterfaceMetric(v, v, &metric));
            static_cast<void>(vnic->CreateMultipleRouteEntries(v, zero, zero, zero, zero, zero, zero));
            SysFreeString(alias);
            VariantClear(&metric);
        });
}

// A client's variables that hold two megabytes each, as outputs of late-bound calls.
TEST_F(Variants, ThatHoldMuchInLateBoundOutputsDoNotMakeTheServiceGrow)
{
    const DWORD process = FindProcesses(L"Halcyd.exe").at(0);
    const UniqueHandle handle(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, process));
    const auto committed = [&]
    {
        PROCESS_MEMORY_COUNTERS counters{};
        EXPECT_TRUE(GetProcessMemoryInfo(handle.get(), &counters, sizeof counters));
        return counters.PagefileUsage;
    };
    IDispatch* const dispatch = registry;
    const auto ask = [&]
    {
        _variant_t type(LongText(1024 * 1024));
        _variant_t data(LongText(1024 * 1024));
        VARIANT arguments[4]{};
        arguments[3] = _variant_t(L"CurrentVersion").Detach();
        arguments[2] = _variant_t(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion").Detach();
        arguments[1].vt = arguments[0].vt = VT_VARIANT | VT_BYREF;
        arguments[1].pvarVal = &type;
        arguments[0].pvarVal = &data;
        DISPPARAMS parameters{arguments, nullptr, 4, 0};
        ASSERT_EQ(
            dispatch->Invoke(1, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &parameters, nullptr, nullptr, nullptr),
            S_OK);
        EXPECT_EQ(type.vt, VT_I4);
        EXPECT_EQ(data.vt, VT_BSTR);
        VariantClear(&arguments[3]);
        VariantClear(&arguments[2]);
    };
    constexpr int rounds = 60;
    for (int round = 0; round < rounds; ++round)
    {
        ask();
    }
    const SIZE_T before = committed();
    for (int round = 0; round < rounds; ++round)
    {
        ask();
    }
    const SIZE_T after = committed();
    ASSERT_GT(before, 0u);
    EXPECT_LT(after, before + std::size_t{rounds} * 1024 * 1024); // lost, they would be four megabytes a call
}
} // namespace
