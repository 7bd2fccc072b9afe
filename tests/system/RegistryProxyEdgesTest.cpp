// The registry proxy of the running service where its rules have corners.

#include <gtest/gtest.h>

#include <windows.h>
#include <comdef.h>

#include <string>

#include "tests/support/RunningService.h"

namespace
{
constexpr wchar_t OwnSubkey[] = L"SOFTWARE\\QRLS\\Sorvane\\Edges";
constexpr wchar_t OwnPath[] = L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\Edges";

class RegistryProxyEdges : public RunningServiceTest
{
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(RunningServiceTest::SetUp());
        Activate(CLSID_NetRegistry, registry);
    }
    HRESULT Set(const std::wstring& path, const wchar_t* value, long registryType, const wchar_t* text)
    {
        return registry->SetRegistry(_bstr_t(value), _bstr_t(path.c_str()), _variant_t(registryType), _variant_t(text));
    }
    HRESULT Query(const std::wstring& path, const wchar_t* value)
    {
        type.Clear();
        data.Clear();
        return registry->QueryRegistry(_bstr_t(value), _bstr_t(path.c_str()), &type, &data);
    }
    static void WriteRaw(const wchar_t* value, DWORD registryType, const void* bytes, DWORD size)
    {
        ASSERT_EQ(0, RegSetKeyValueW(HKEY_LOCAL_MACHINE, OwnSubkey, value, registryType, bytes, size));
    }

    INetRegistryPtr registry;
    _variant_t type;
    _variant_t data;
};

TEST_F(RegistryProxyEdges, EveryBranchOfTheListIsWritable)
{
    for (const wchar_t* path : {L"HKEY_CURRENT_USER\\Software\\Edges", L"HKEY_LOCAL_MACHINE\\Software\\qrls\\Edges",
                                L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\Sorvane\\SoftwareUpdateComponents\\Edges",
                                L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Edges",
                                L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Services\\NlaSvc\\Parameters\\Edges",
                                L"HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\Control\\Class\\{4D36E972-E325-11CE-"
                                L"BFC1-08002BE10318}\\Edges",
                                L"HKEY_LOCAL_MACHINE\\System\\CURRENTCONTROLSET\\services\\QrlFilt\\Edges"})
    {
        EXPECT_EQ(0, Set(path, L"v", 1, L"text")) << path;
        EXPECT_EQ(0, Query(path, L"v")) << path;
        EXPECT_STREQ(L"text", data.bstrVal) << path;
        EXPECT_EQ(0, registry->DeleteRegistryNode(_bstr_t(path))) << path;
        EXPECT_EQ(ERROR_FILE_NOT_FOUND, Query(path, L"v")) << path;
    }
}

// Required: the list is looked for anywhere in the path.
TEST_F(RegistryProxyEdges, PathThatHoldsABranchInTheNameOfAKeyPasses)
{
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Edges\\key", L"v", 1, L"x"));
    EXPECT_EQ(0, Set(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Edges\\HKEY_CURRENT_USER", L"v", 1, L"x"));
    EXPECT_EQ(0, registry->DeleteRegistryNode(_bstr_t(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\Edges\\HKEY_CURRENT_USER")));
}

TEST_F(RegistryProxyEdges, RootsInAnotherSpellingGive160OnEveryRoad)
{
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Query(L"hkey_local_machine\\SOFTWARE", L"v"));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Query(L"HKEY_USERS\\x", L"v"));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Query(L"HKLM", L"v"));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, Set(L"hkey_local_machine\\software\\qrls\\Edges", L"v", 1, L"x"));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS,
              registry->DeleteRegistry(_bstr_t(L"v"), _bstr_t(L"hkey_local_machine\\software\\qrls\\Edges")));
    EXPECT_EQ(ERROR_BAD_ARGUMENTS, registry->DeleteRegistryNode(_bstr_t(L"hkey_current_user")));
    // The short name is a root, and no branch of the list.
    EXPECT_EQ(ERROR_ACCESS_DENIED, Set(L"HKLM\\SOFTWARE\\QRLS\\Edges", L"v", 1, L"x"));
}

TEST_F(RegistryProxyEdges, TypesThatAreNotCarriedAreTypedAndLeftEmpty)
{
    WriteRaw(L"expand", REG_EXPAND_SZ, L"%a%", 8);
    WriteRaw(L"binary", REG_BINARY, "x", 1);
    EXPECT_EQ(0, Query(OwnPath, L"expand"));
    EXPECT_EQ(VT_I4, type.vt);
    EXPECT_EQ(REG_EXPAND_SZ, type.lVal);
    EXPECT_EQ(VT_EMPTY, data.vt);
    EXPECT_EQ(0, Query(OwnPath, L"binary"));
    EXPECT_EQ(REG_BINARY, type.lVal);
    EXPECT_EQ(VT_EMPTY, data.vt);
}

TEST_F(RegistryProxyEdges, EmptyValuesComeBackEmpty)
{
    WriteRaw(L"text", REG_SZ, L"", 0);
    WriteRaw(L"list", REG_MULTI_SZ, L"\0", 4);
    EXPECT_EQ(0, Query(OwnPath, L"text"));
    ASSERT_EQ(VT_BSTR, data.vt);
    EXPECT_EQ(0u, SysStringLen(data.bstrVal));
    EXPECT_EQ(0, Query(OwnPath, L"list"));
    EXPECT_EQ(REG_MULTI_SZ, type.lVal);
    EXPECT_EQ(VT_EMPTY, data.vt);
}

TEST_F(RegistryProxyEdges, CommaBytesOfWideCharactersAreLost)
{
    EXPECT_EQ(0, Set(OwnPath, L"list", 7, L"a\u2C41,b"));
    EXPECT_EQ(0, Query(OwnPath, L"list"));
    ASSERT_EQ(VT_ARRAY | VT_BSTR, data.vt);
    LONG lower = -1;
    EXPECT_EQ(S_OK, SafeArrayGetLBound(data.parray, 1, &lower));
    EXPECT_EQ(0, lower);
    ASSERT_EQ(2u, data.parray->rgsabound[0].cElements);
    EXPECT_STREQ(L"aA", static_cast<BSTR*>(data.parray->pvData)[0]);
    EXPECT_STREQ(L"b", static_cast<BSTR*>(data.parray->pvData)[1]);
}

TEST_F(RegistryProxyEdges, MissingKeysAndValuesGiveTwo)
{
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, Query(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\No such key", L"v"));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND,
              registry->DeleteRegistry(_bstr_t(L"v"), _bstr_t(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\No such key")));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND,
              registry->DeleteRegistryNode(_bstr_t(L"HKEY_LOCAL_MACHINE\\SOFTWARE\\QRLS\\No such key")));
}
} // namespace
