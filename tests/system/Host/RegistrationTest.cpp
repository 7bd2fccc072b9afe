// The registration words, held against full copies of the registry.

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "Host/HostSupport.h"
#include "NetUtilities/Handles.h"
#include "tests/support/RegistryExport.h"

namespace
{
using HostSupport::AppId;
using HostSupport::LibraryId;
using Lines = std::set<std::wstring>;

struct ClassRow
{
    std::wstring name;
    std::wstring id;
};

const std::vector<ClassRow> classes{
    {L"DNS", L"{9E24A972-C157-4F37-AD3B-D0480BF62B7C}"},
    {L"NetRegistry", L"{46A32167-3C01-4911-B46C-CCB53F5A98A5}"},
    {L"ServiceControlEx", L"{A0AA43AB-0870-4CED-8AC6-7A45536B2019}"},
    {L"VNIC", L"{C5B8411A-8A38-46A9-A5AE-6640069E9024}"},
    {L"NetMonSv", L"{EB0A2BB8-5AA4-4787-99FE-F92A56BB39CD}"},
    {L"SimpleSink", L"{D47DE45D-74BE-4B09-949E-5AC03686B5AF}"}, // not the id that the process serves
};

// A full copy of what registration can touch.
RegistryExport ExportAll()
{
    RegistryExport all;
    const std::pair<const wchar_t*, const wchar_t*> branches[] = {
        {L"Software\\Classes", L"HKCR"},
        {L"SYSTEM\\CurrentControlSet\\Services", L"Services"},
    };
    for (const auto& [subkey, name] : branches)
    {
        for (auto& [key, values] : ExportRegistry(HKEY_LOCAL_MACHINE, subkey))
        {
            all[std::wstring(name) + (key.empty() ? L"" : L"\\" + key)] = values;
        }
    }
    return all;
}

std::wstring Lower(std::wstring text)
{
    CharLowerW(text.data());
    return text;
}

bool Contains(const std::wstring& line, const wchar_t* text)
{
    return Lower(line).find(Lower(text)) != std::wstring::npos;
}

// The 32-bit mirrors of the registry repeat what stands elsewhere; the type library's own entries are the platform's
// work (RegisterTypeLib) and looked at apart.
bool IsPlatforms(const std::wstring& line)
{
    return Contains(line, L"Wow6432Node") || Contains(line, L"HKCR\\Interface") || Contains(line, L"HKCR\\TypeLib");
}

Lines Differences(const RegistryExport& before, const RegistryExport& after)
{
    Lines lines;
    for (const std::wstring& line : DifferRegistry(before, after))
    {
        if (!IsPlatforms(line))
        {
            lines.insert(Lower(line));
        }
    }
    return lines;
}

void Key(Lines& lines, const std::wstring& key, const wchar_t* defaultValue = nullptr)
{
    lines.insert(Lower(L"+ " + key));
    if (defaultValue != nullptr)
    {
        lines.insert(Lower(L"+ " + key + L" [] = '" + defaultValue + L"'"));
    }
}
void Value(Lines& lines, const std::wstring& key, const wchar_t* name, const std::wstring& text)
{
    lines.insert(Lower(L"+ " + key + L" [" + name + L"] = '" + text + L"'"));
}

// What the scripts write.
Lines ExpectedKeys()
{
    Lines lines;
    const std::wstring appId = std::wstring(L"HKCR\\AppID\\") + AppId;
    Key(lines, appId, L"Halcyd");
    Key(lines, L"HKCR\\AppID\\Halcyd.EXE");
    Value(lines, L"HKCR\\AppID\\Halcyd.EXE", L"AppID", AppId);
    Key(lines, L"Services\\EventLog\\Application\\SorvaneSvc");
    Value(lines, L"Services\\EventLog\\Application\\SorvaneSvc", L"EventMessageFile", HostSupport::ServiceExecutable());
    for (const ClassRow& row : classes)
    {
        const std::wstring description = row.name + L" Class";
        const std::wstring progId = L"HKCR\\Halcyd." + row.name;
        const std::wstring versioned = progId + L".1";
        Key(lines, versioned, description.c_str());
        Key(lines, versioned + L"\\CLSID", row.id.c_str());
        Key(lines, progId, description.c_str());
        Key(lines, progId + L"\\CLSID", row.id.c_str());
        Key(lines, progId + L"\\CurVer", (L"Halcyd." + row.name + L".1").c_str());
        const std::wstring clsid = L"HKCR\\CLSID\\" + row.id;
        Key(lines, clsid, description.c_str());
        Value(lines, clsid, L"AppID", AppId);
        Key(lines, clsid + L"\\ProgID", (L"Halcyd." + row.name + L".1").c_str());
        Key(lines, clsid + L"\\VersionIndependentProgID", (L"Halcyd." + row.name).c_str());
        Key(lines, clsid + L"\\Programmable");
        Key(lines, clsid + L"\\LocalServer32", (L"\"" + HostSupport::ServiceExecutable() + L"\"").c_str());
        Key(lines, clsid + L"\\TypeLib", LibraryId);
    }
    return lines;
}

// Compares and names what is missing and what is too much. A DWORD or another type prints in the exporter's own form,
// so those lines are looked at apart.
void ExpectSame(Lines found, const Lines& expected)
{
    for (const std::wstring& line : expected)
    {
        EXPECT_EQ(found.erase(line), 1u) << "missing: " << std::string(line.begin(), line.end());
    }
    for (const std::wstring& line : found)
    {
        ADD_FAILURE() << "not expected: " << std::string(line.begin(), line.end());
    }
}

std::size_t RemoveContaining(Lines& lines, const wchar_t* text)
{
    return std::erase_if(lines, [&](const std::wstring& line) { return Contains(line, text); });
}

class RegistrationTest : public ::testing::Test
{
protected:
    // The runner's prefix has the product registered: begin without.
    void SetUp() override
    {
        ASSERT_TRUE(HostSupport::StopService());
        ASSERT_EQ(HostSupport::RunWord(L"-UnregServer"), 0u);
        ASSERT_FALSE(ServiceControl().Exists());
        unregistered = ExportAll();
    }

    RegistryExport unregistered;
};

std::wstring AppIdValue(const wchar_t* name)
{
    const RegistryExport appId = ExportRegistry(HKEY_CLASSES_ROOT, std::wstring(L"AppID\\") + AppId);
    return TextOfValue(appId, L"", name);
}
} // namespace

TEST_F(RegistrationTest, RegServerWritesExactlyTheDocumentedKeysAndValues)
{
    ASSERT_EQ(HostSupport::RunWord(L"-RegServer"), 0u);
    Lines found = Differences(unregistered, ExportAll());
    EXPECT_EQ(RemoveContaining(found, L"[TypesSupported]"), 1u);
    ExpectSame(found, ExpectedKeys());
    EXPECT_FALSE(ServiceControl().Exists());
}

TEST_F(RegistrationTest, ServiceWritesTheSameKeysTwoValuesAndTheService)
{
    ASSERT_EQ(HostSupport::RunWord(L"/SERVICE"), 0u);
    Lines found = Differences(unregistered, ExportAll());
    EXPECT_EQ(RemoveContaining(found, L"[TypesSupported]"), 1u);
    EXPECT_GE(RemoveContaining(found, L"Services\\Halcyd"), 1u); // the manager's own record of the service
    Lines expected = ExpectedKeys();
    const std::wstring appId = std::wstring(L"HKCR\\AppID\\") + AppId;
    Value(expected, appId, L"LocalService", L"Halcyd");
    Value(expected, appId, L"ServiceParameters", L"-Service");
    ExpectSame(found, expected);
    EXPECT_TRUE(ServiceControl().Exists());
}

TEST_F(RegistrationTest, RemovalLeavesNoneOfItsKeys)
{
    ASSERT_EQ(HostSupport::RunWord(L"-service"), 0u);
    ASSERT_EQ(HostSupport::RunWord(L"/unregserver"), 0u);
    ExpectSame(Differences(unregistered, ExportAll()), {});
    // The type library and its interfaces are gone too.
    const RegistryExport library = ExportRegistry(HKEY_CLASSES_ROOT, std::wstring(L"TypeLib\\") + LibraryId);
    EXPECT_TRUE(library.empty() || (library.size() == 1 && library.begin()->second.empty()));
    EXPECT_FALSE(ServiceControl().Exists());
}

TEST_F(RegistrationTest, RegServerAfterServiceTakesServiceAndLocalServiceAwayAndKeepsServiceParameters)
{
    ASSERT_EQ(HostSupport::RunWord(L"-Service"), 0u);
    EXPECT_EQ(AppIdValue(L"LocalService"), L"Halcyd");
    ASSERT_EQ(HostSupport::RunWord(L"-RegServer"), 0u);
    EXPECT_FALSE(ServiceControl().Exists());
    EXPECT_EQ(AppIdValue(L"LocalService"), L"");
    EXPECT_EQ(AppIdValue(L"ServiceParameters"), L"-Service");
}

TEST_F(RegistrationTest, ServiceTwiceMakesServiceAndValuesAnew)
{
    ASSERT_EQ(HostSupport::RunWord(L"-Service"), 0u);
    const RegistryExport first = ExportAll();
    ASSERT_EQ(HostSupport::RunWord(L"-Service"), 0u);
    ExpectSame(Differences(first, ExportAll()), {});
    EXPECT_TRUE(ServiceControl().Exists());
    EXPECT_EQ(AppIdValue(L"LocalService"), L"Halcyd");
    EXPECT_EQ(AppIdValue(L"ServiceParameters"), L"-Service");
}

TEST_F(RegistrationTest, UnregServerWithoutARegistrationReturnsZero)
{
    EXPECT_EQ(HostSupport::RunWord(L"-UnregServer"), 0u);
    ExpectSame(Differences(unregistered, ExportAll()), {});
}

TEST_F(RegistrationTest, WithoutTheAppIdKeyTheProcessEndsWithTheRegistrysError)
{
    EXPECT_EQ(HostSupport::RunWord(L""), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_TRUE(HostSupport::WaitForNoProcess());
}

TEST_F(RegistrationTest, ServiceIsAutomaticRunsAsLocalSystemAndNeedsRpcss)
{
    ASSERT_EQ(HostSupport::RunWord(L"-Service"), 0u);
    const UniqueServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    ASSERT_TRUE(manager);
    const UniqueServiceHandle service(OpenServiceW(manager.get(), L"Halcyd", SERVICE_QUERY_CONFIG));
    ASSERT_TRUE(service);
    alignas(QUERY_SERVICE_CONFIGW) BYTE buffer[8192]{};
    DWORD needed = 0;
    auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(buffer);
    ASSERT_TRUE(QueryServiceConfigW(service.get(), config, sizeof(buffer), &needed));
    EXPECT_STREQ(config->lpDisplayName, L"Network Configuration Service");
    EXPECT_EQ(config->dwServiceType, static_cast<DWORD>(SERVICE_WIN32_OWN_PROCESS));
    EXPECT_EQ(config->dwStartType, static_cast<DWORD>(SERVICE_AUTO_START));
    EXPECT_EQ(config->dwErrorControl, static_cast<DWORD>(SERVICE_ERROR_NORMAL));
    EXPECT_EQ(std::wstring(config->lpBinaryPathName), HostSupport::ServiceExecutable()); // no quotes, no arguments
    EXPECT_STREQ(config->lpServiceStartName, L"LocalSystem");
    // The query does not hand the dependencies out under every platform; the manager's record does.
    wchar_t dependencies[32]{};
    DWORD size = sizeof(dependencies);
    ASSERT_EQ(RegGetValueW(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Services\\Halcyd", L"DependOnService",
                           RRF_RT_REG_MULTI_SZ, nullptr, dependencies, &size),
              ERROR_SUCCESS);
    EXPECT_EQ(std::wstring(dependencies, size / sizeof(wchar_t)), std::wstring(L"RPCSS\0\0", 7));
}

TEST_F(RegistrationTest, MessageTableHoldsTheMonitorsOneMessage)
{
    const UniqueModule module(
        LoadLibraryExW(HostSupport::ServiceExecutable().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    ASSERT_TRUE(module);
    wchar_t argument[] = L"something broke";
    DWORD_PTR arguments[] = {reinterpret_cast<DWORD_PTR>(argument)};
    wchar_t text[200]{};
    ASSERT_NE(FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY, module.get(), 0xC0020001, 0,
                             text, 200, reinterpret_cast<va_list*>(arguments)),
              0u);
    EXPECT_STREQ(text, L"Halcyd: something broke.\r\n");
}
