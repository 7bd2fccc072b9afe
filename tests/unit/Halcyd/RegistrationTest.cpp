// The registration operations with a service manager and a registrar that answer as the test says: every line in its
// order, every failure. What really lands in the registry is tested against the shipped executable.

#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Halcyd/ResourceIds.h"
#include "Halcyd/ServiceModule.h"
#include "HostHooks.h"
#include "NetUtilities/ComApartment.h"
#include "NetUtilities/Format.h"
#include "NetUtilities/PathData.h"
#include "NetUtilities/RegistryKey.h"
#include "NetUtilities/Trace.h"
#include "TraceLines.h"
#include "tests/unit/support/TraceRecorder.h"

// Vtable of the platform's registrar, in its order. Not in an unnamed namespace: the compiler would drop it.
struct FakeRegistrar : public IUnknown
{
    virtual HRESULT STDMETHODCALLTYPE AddReplacement(LPCOLESTR key, LPCOLESTR item);
    virtual HRESULT STDMETHODCALLTYPE ClearReplacements() { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE ResourceRegisterSz(LPCOLESTR, LPCOLESTR, LPCOLESTR) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE ResourceUnregisterSz(LPCOLESTR, LPCOLESTR, LPCOLESTR) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE FileRegister(LPCOLESTR) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE FileUnregister(LPCOLESTR) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE StringRegister(LPCOLESTR) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE StringUnregister(LPCOLESTR) { return E_NOTIMPL; }
    virtual HRESULT STDMETHODCALLTYPE ResourceRegister(LPCOLESTR file, UINT id, LPCOLESTR type);
    virtual HRESULT STDMETHODCALLTYPE ResourceUnregister(LPCOLESTR file, UINT id, LPCOLESTR type);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void** result) override
    {
        *result = this;
        return S_OK;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return 2; }
    ULONG STDMETHODCALLTYPE Release() override { return 1; }

    HRESULT Run(const wchar_t* what, LPCOLESTR file, UINT id, LPCOLESTR type);

    std::vector<std::wstring> journal; // "register 100", "unregister 101", ...
    std::vector<std::wstring> replacements;
    UINT failing = 0; // this script fails
};

HRESULT FakeRegistrar::AddReplacement(LPCOLESTR key, LPCOLESTR item)
{
    replacements.push_back(std::wstring(key) + L"=" + item);
    return S_OK;
}
HRESULT FakeRegistrar::ResourceRegister(LPCOLESTR file, UINT id, LPCOLESTR type)
{
    return Run(L"register ", file, id, type);
}
HRESULT FakeRegistrar::ResourceUnregister(LPCOLESTR file, UINT id, LPCOLESTR type)
{
    return Run(L"unregister ", file, id, type);
}
HRESULT FakeRegistrar::Run(const wchar_t* what, LPCOLESTR file, UINT id, LPCOLESTR type)
{
    EXPECT_EQ(std::wstring(file), GetExecutablePath());
    EXPECT_STREQ(type, L"REGISTRY");
    journal.push_back(what + std::to_wstring(id));
    return id == failing ? E_ACCESSDENIED : S_OK;
}

namespace
{
constexpr CLSID RegistrarClass = {0x44EC053A, 0x400F, 0x11D0, {0x9D, 0xCD, 0x00, 0xA0, 0xC9, 0x03, 0x91, 0xD3}};
using Texts = std::vector<std::wstring>;

class Registration : public ::testing::Test
{
protected:
    void SetUp() override
    {
        LoadStringWHook::Replace(
            [](HINSTANCE, UINT id, LPWSTR buffer, int size)
            {
                const std::wstring text = id == IDS_SERVICENAME ? L"Halcyd" : L"Network Configuration Service";
                EXPECT_EQ(size, 256);
                text.copy(buffer, text.size());
                buffer[text.size()] = L'\0';
                return static_cast<int>(text.size());
            });
        HookManager();
        CoCreateInstanceHook::Replace(
            [this](REFCLSID clsid, IUnknown* outer, DWORD context, REFIID iid, void** result)
            {
                if (!IsEqualCLSID(clsid, RegistrarClass))
                {
                    return CoCreateInstanceHook::Real(clsid, outer, context, iid, result);
                }
                *result = &registrar;
                return S_OK;
            });
        RegistryKey appId;
        ASSERT_EQ(appId.Create(HKEY_CLASSES_ROOT, std::wstring(L"AppID\\") + AppIdGuid, KEY_WRITE), ERROR_SUCCESS);
        SetDefaultLogSource(Log::Source::ConfigServer);
        _Module.Init(ObjectMap, GetModuleHandleW(nullptr), IDS_SERVICENAME, &LIBID_HALCYDLib);
        TraceLines::Clear();
    }
    void TearDown() override
    {
        EXPECT_EQ(handles, 0) << "a handle of the service manager was left open";
        PlatformHooks::Reset();
        _Module.Init(ObjectMap, GetModuleHandleW(nullptr), IDS_SERVICENAME, &LIBID_HALCYDLib);
        _Module.Term();
        _Module.m_bService = FALSE;
        RegistryKey appIds(false);
        if (appIds.Open(HKEY_CLASSES_ROOT, L"AppID", KEY_ALL_ACCESS) == ERROR_SUCCESS)
        {
            appIds.DeleteTree(AppIdGuid);
        }
    }

    // A manager with at most one service, "Halcyd".
    void HookManager()
    {
        OpenSCManagerWHook::Replace(
            [this](LPCWSTR machine, LPCWSTR database, DWORD access)
            {
                EXPECT_EQ(machine, nullptr);
                EXPECT_EQ(database, nullptr);
                EXPECT_EQ(access, 0xF003Fu);
                ++handles;
                return manager;
            });
        OpenServiceWHook::Replace(
            [this](SC_HANDLE, LPCWSTR name, DWORD access) -> SC_HANDLE
            {
                journal.push_back(FormatText(L"open {} {:#x}", std::wstring_view(name), access));
                if (!installed)
                {
                    SetLastError(ERROR_SERVICE_DOES_NOT_EXIST);
                    return nullptr;
                }
                ++handles;
                return service;
            });
        CreateServiceWHook::Replace(
            [this](SC_HANDLE, LPCWSTR name, LPCWSTR display, DWORD access, DWORD type, DWORD start, DWORD errorControl,
                   LPCWSTR path, LPCWSTR group, LPDWORD tag, LPCWSTR dependencies, LPCWSTR account, LPCWSTR password)
            {
                journal.push_back(FormatText(L"create {} '{}' {:#x} {} {} {}", std::wstring_view(name),
                                             std::wstring_view(display), access, type, start, errorControl));
                EXPECT_EQ(std::wstring(path), GetExecutablePath()); // no quotes, no arguments
                EXPECT_EQ(group, nullptr);
                EXPECT_EQ(tag, nullptr);
                EXPECT_EQ(std::wstring(dependencies, 7), std::wstring(L"RPCSS\0\0", 7));
                EXPECT_EQ(account, nullptr);
                EXPECT_EQ(password, nullptr);
                installed = true;
                ++handles;
                return service;
            });
        ControlServiceHook::Replace(
            [this](SC_HANDLE, DWORD control, LPSERVICE_STATUS)
            {
                journal.push_back(L"control " + std::to_wstring(control));
                SetLastError(ERROR_SERVICE_NOT_ACTIVE);
                return FALSE; // nobody looks at it
            });
        DeleteServiceHook::Replace(
            [this](SC_HANDLE)
            {
                journal.push_back(L"delete");
                installed = false;
                return TRUE;
            });
        CloseServiceHandleHook::Replace(
            [this](SC_HANDLE)
            {
                --handles;
                return TRUE;
            });
    }

    // The host's lines, the level in front; paths and texts of the system are left out.
    static Texts Lines()
    {
        Texts texts;
        for (const RecordedLine& line : TraceRecorder::Get().Lines())
        {
            if (line.source == 10)
            {
                const std::wstring message = line.Message();
                texts.push_back(std::to_wstring(line.level) + L" " + message.substr(0, message.find(L" - ")));
            }
        }
        return texts;
    }
    static std::wstring AppIdValue(const wchar_t* name)
    {
        RegistryKey key(false);
        std::wstring text;
        EXPECT_EQ(key.Open(HKEY_CLASSES_ROOT, std::wstring(L"AppID\\") + AppIdGuid, KEY_READ), ERROR_SUCCESS);
        key.ReadString(name, text, L"(none)");
        return text;
    }

    const ComApartment apartment;
    HookScope hooks;
    FakeRegistrar registrar;
    bool installed = false;
    int handles = 0;
    Texts journal;
    const SC_HANDLE manager = reinterpret_cast<SC_HANDLE>(1);
    const SC_HANDLE service = reinterpret_cast<SC_HANDLE>(2);
};

const Texts NotInstalled{L"2 could not open 'Halcyd' service Error 1060 (0x424)"};
const Texts Opening{L"4 open the AppID key for the server/service", L"4 open the AppID registry value",
                    L"4 configure the module to run as a service or server"};

Texts Join(std::initializer_list<Texts> parts)
{
    Texts all;
    for (const Texts& part : parts)
    {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}
} // namespace

TEST_F(Registration, ServiceOnACleanMachineGoesThroughItsStepsInOrder)
{
    EXPECT_EQ(_Module.RegisterServer(FALSE, TRUE), S_OK);
    EXPECT_EQ(Lines(),
              Join({NotInstalled,
                    {L"4 'Halcyd' was not present, uninstall skipped", L"4 done removing old service (if needed)",
                     L"4 add registry entries required for the object the service houses"},
                    Opening,
                    // The value that is not there is told by the registry class and is no problem.
                    {std::wstring(L"2 DeleteValue HKCR\\AppID\\") + AppIdGuid + L"\\LocalService Error 2 (0x2)",
                     L"4 flag to create service is set"},
                    NotInstalled,
                    {L"4 '" + GetExecutablePath() + L"' is the path for the current executable",
                     L"4 about to add the service to the SCM", L"4 created 'Halcyd' service", L"4 Installed Service",
                     L"4 updated the system registry for all objects in the object map"}}));
    EXPECT_EQ(journal, (Texts{L"open Halcyd 0x1", L"open Halcyd 0x1",
                              L"create Halcyd 'Network Configuration Service' 0xf01ff 16 2 1"}));
    EXPECT_EQ(AppIdValue(L"LocalService"), L"Halcyd");
    EXPECT_EQ(AppIdValue(L"ServiceParameters"), L"-Service");
}

TEST_F(Registration, ScriptsRunInOrderWithBothTokens)
{
    EXPECT_EQ(_Module.RegisterServer(FALSE, FALSE), S_OK);
    EXPECT_EQ(registrar.journal, (Texts{L"register 100", L"register 101", L"register 102", L"register 103",
                                        L"register 104", L"register 105", L"register 106"}));
    ASSERT_EQ(registrar.replacements.size(), 14u);
    EXPECT_EQ(registrar.replacements[0], L"Module=\"" + GetExecutablePath() + L"\"");
    EXPECT_EQ(registrar.replacements[1], L"Module_Raw=" + GetExecutablePath());
}

TEST_F(Registration, PlainServerOnAFormerServiceStopsAndDeletesItFirst)
{
    installed = true;
    {
        RegistryKey appId;
        ASSERT_EQ(appId.Open(HKEY_CLASSES_ROOT, std::wstring(L"AppID\\") + AppIdGuid, KEY_WRITE), ERROR_SUCCESS);
        ASSERT_EQ(appId.WriteString(L"LocalService", L"Halcyd"), ERROR_SUCCESS);
        ASSERT_EQ(appId.WriteString(L"ServiceParameters", L"-Service"), ERROR_SUCCESS);
    }
    EXPECT_EQ(_Module.RegisterServer(FALSE, FALSE), S_OK);
    EXPECT_EQ(Lines(), Join({{L"4 able to open 'Halcyd' service", L"4 stopping service", L"4 deleting service",
                              L"4 Deleted service", L"4 done removing old service (if needed)",
                              L"4 add registry entries required for the object the service houses"},
                             Opening,
                             {L"4 updated the system registry for all objects in the object map"}}));
    EXPECT_EQ(journal, (Texts{L"open Halcyd 0x1", L"open Halcyd 0x10020", L"control 1", L"delete"}));
    EXPECT_EQ(AppIdValue(L"LocalService"), L"(none)");
    EXPECT_EQ(AppIdValue(L"ServiceParameters"), L"-Service"); // stays
}

TEST_F(Registration, FailedModuleScriptIsAnErrorAndTheSequenceGoesOn)
{
    registrar.failing = IDR_HALCYD;
    EXPECT_EQ(_Module.RegisterServer(FALSE, FALSE), S_OK);
    EXPECT_TRUE(TraceRecorder::Get().HasMessageStarting(
        L"Could not update AppID registry subkeys for Local Server or Service Error 2147942405 (0x80070005)"));
    EXPECT_EQ(registrar.journal.size(), 7u);
}

TEST_F(Registration, FailedClassScriptEndsTheWalkAndIsReturned)
{
    registrar.failing = IDR_SERVICECONTROLEX;
    EXPECT_EQ(_Module.RegisterServer(FALSE, FALSE), E_ACCESSDENIED);
    EXPECT_EQ(registrar.journal, (Texts{L"register 100", L"register 101", L"register 102", L"register 103"}));
    EXPECT_TRUE(TraceRecorder::Get().HasMessageStarting(
        L"failed to update the system registry for objects Error 2147942405 (0x80070005)"));
}

TEST_F(Registration, MissingTypeLibraryIsReturned)
{
    // This program carries none.
    const long result = _Module.RegisterServer(TRUE, FALSE);
    EXPECT_TRUE(FAILED(result));
    EXPECT_EQ(registrar.journal.size(), 7u);
    EXPECT_TRUE(TraceRecorder::Get().HasMessageStarting(L"failed to update the system registry for objects Error "));
}

TEST_F(Registration, AppIdKeyThatCannotBeOpenedIsReturnedAsItsRegistryError)
{
    RegOpenKeyExWHook::Replace(
        [](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key)
        {
            if (root == HKEY_CLASSES_ROOT && std::wstring_view(subkey) == L"AppID")
            {
                EXPECT_EQ(access, 0x20006u);
                return static_cast<LONG>(ERROR_ACCESS_DENIED);
            }
            return RegOpenKeyExWHook::Real(root, subkey, options, access, key);
        });
    EXPECT_EQ(_Module.RegisterServer(FALSE, TRUE), ERROR_ACCESS_DENIED);
    const Texts lines = Lines();
    EXPECT_EQ(lines.back(), L"2 could not set the AppID for Local Server or Service Error 5 (0x5)");
    EXPECT_EQ(registrar.journal, (Texts{L"register 100"}));
    EXPECT_FALSE(installed);
}

TEST_F(Registration, SubkeyOfTheAppIdThatCannotBeOpenedIsReturnedAsItsRegistryError)
{
    RegOpenKeyExWHook::Replace(
        [](HKEY root, LPCWSTR subkey, DWORD options, REGSAM access, PHKEY key)
        {
            if (std::wstring_view(subkey) == AppIdGuid)
            {
                EXPECT_EQ(access, 0x20006u);
                return static_cast<LONG>(ERROR_ACCESS_DENIED);
            }
            return RegOpenKeyExWHook::Real(root, subkey, options, access, key);
        });
    EXPECT_EQ(_Module.RegisterServer(FALSE, TRUE), ERROR_ACCESS_DENIED);
    const Texts lines = Lines();
    EXPECT_EQ(lines.back(), std::wstring(L"2 Error: could not set the AppID ") + AppIdGuid +
                                L" for Local Server or Service Error 5 (0x5)");
    EXPECT_FALSE(installed);
}

TEST_F(Registration, FailedInstallationIsStillCalledInstalledAndDoesNotChangeTheResult)
{
    PlatformHooks::FailCall("CreateServiceW", 1, ERROR_SERVICE_MARKED_FOR_DELETE);
    EXPECT_EQ(_Module.RegisterServer(FALSE, TRUE), S_OK);
    const Texts lines = Lines();
    const auto installedService = std::find(lines.begin(), lines.end(), L"4 Installed Service");
    ASSERT_NE(installedService, lines.end());
    EXPECT_EQ(*(installedService - 2), L"2 Error creating the service Error 1072 (0x430)");
    EXPECT_EQ(*(installedService - 1), L"2 could not create service Error 1072 (0x430)");
    EXPECT_EQ(AppIdValue(L"LocalService"), L"Halcyd");
}

TEST_F(Registration, UnregisterServerGoesThroughItsStepsInOrderAndIgnoresEveryResult)
{
    installed = true;
    registrar.failing = IDR_NETREGISTRY;
    EXPECT_EQ(_Module.UnregisterServer(), S_OK);
    EXPECT_EQ(Lines(), (Texts{L"4 updating the registry from the Halcyd registry resource",
                              L"4 able to open 'Halcyd' service", L"4 stopping service", L"4 deleting service",
                              L"4 Deleted service", L"4 remove Halcyd COM object entries"}));
    EXPECT_EQ(registrar.journal, (Texts{L"unregister 100", L"unregister 101", L"unregister 102"}));
}

TEST_F(Registration, UnregisterServerOnACleanMachineReturnsZero)
{
    EXPECT_EQ(_Module.UnregisterServer(), S_OK);
    EXPECT_EQ(Lines(),
              Join({{L"4 updating the registry from the Halcyd registry resource"},
                    NotInstalled,
                    {L"4 'Halcyd' was not present, uninstall skipped", L"4 remove Halcyd COM object entries"}}));
    EXPECT_EQ(registrar.journal.size(), 7u);
}

TEST_F(Registration, InstallOfAnInstalledServiceDoesNothing)
{
    installed = true;
    EXPECT_EQ(_Module.Install(), TRUE);
    EXPECT_EQ(Lines(), (Texts{L"4 able to open 'Halcyd' service", L"4 server is already installed"}));
    EXPECT_EQ(journal, (Texts{L"open Halcyd 0x1"}));
}

TEST_F(Registration, OrdinaryUserIsRefusedByTheManagerAndTheClassesAreRegisteredAllTheSame)
{
    OpenSCManagerWHook::Replace(
        [](LPCWSTR, LPCWSTR, DWORD) -> SC_HANDLE
        {
            SetLastError(ERROR_ACCESS_DENIED);
            return nullptr;
        });
    EXPECT_EQ(_Module.Install(), FALSE);
    const Texts refused{L"2 could not open SCM Error 5 (0x5)", L"2 could not open SCM Error 5 (0x5)"};
    EXPECT_EQ(Lines(), refused); // once from the test whether it is installed, once from the installation
    EXPECT_EQ(_Module.RegisterServer(FALSE, TRUE), S_OK);
    EXPECT_EQ(registrar.journal.size(), 7u);
    EXPECT_EQ(AppIdValue(L"LocalService"), L"Halcyd");
}

TEST_F(Registration, EachRefusalOfTheCreationHasItsWordsAndTheCodeBehindTheSecondLine)
{
    for (const DWORD code : {5u, 6u, 87u, 123u, 1057u, 1059u, 1073u, 1078u})
    {
        TraceLines::Clear();
        PlatformHooks::FailCall("CreateServiceW", 1, code);
        EXPECT_EQ(_Module.Install(), FALSE);
        const Texts lines = Lines();
        ASSERT_GE(lines.size(), 2u);
        EXPECT_TRUE(lines[lines.size() - 2].starts_with(L"2 ")) << code;
        EXPECT_EQ(lines[lines.size() - 2].find(L"Error"), std::wstring::npos) << code; // words without the number
        EXPECT_EQ(lines.back(), FormatText(L"2 could not create service Error {} ({:#x})", code, code));
        EXPECT_EQ(handles, 0);
    }
}

TEST_F(Registration, UninstallTellsEachOfItsFailures)
{
    installed = true;
    PlatformHooks::FailCall("OpenSCManagerW", 2, ERROR_ACCESS_DENIED);
    EXPECT_EQ(_Module.Uninstall(), FALSE);
    EXPECT_EQ(Lines(),
              (Texts{L"4 able to open 'Halcyd' service", L"2 Couldn't open service control manager Error 5 (0x5)"}));

    TraceLines::Clear();
    PlatformHooks::FailCall("OpenServiceW", 2, ERROR_ACCESS_DENIED);
    EXPECT_EQ(_Module.Uninstall(), FALSE);
    EXPECT_EQ(Lines(), (Texts{L"4 able to open 'Halcyd' service", L"2 Couldn't open service Error 5 (0x5)"}));

    TraceLines::Clear();
    PlatformHooks::FailCall("DeleteService", 1, ERROR_SERVICE_MARKED_FOR_DELETE);
    EXPECT_EQ(_Module.Uninstall(), FALSE);
    EXPECT_EQ(Lines(), (Texts{L"4 able to open 'Halcyd' service", L"4 stopping service", L"4 deleting service",
                              L"2 Service could not be deleted Error 1072 (0x430)"}));
}
