#include "TestObjects.h"

#include "ComSupport/Registrar.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace
{
std::vector<std::string> calls; // what the map's functions were asked, in order

HRESULT WINAPI UpdateFirst(BOOL registering)
{
    calls.push_back(registering ? "register first" : "unregister first");
    return S_OK;
}
HRESULT WINAPI UpdateSecond(BOOL registering)
{
    calls.push_back(registering ? "register second" : "unregister second");
    return registering ? E_ACCESSDENIED : S_OK;
}
HRESULT WINAPI UpdateThird(BOOL registering)
{
    calls.push_back(registering ? "register third" : "unregister third");
    return S_OK;
}
void WINAPI MainFirst(bool starting)
{
    calls.push_back(starting ? "first starts" : "first ends");
}
void WINAPI MainSecond(bool starting)
{
    calls.push_back(starting ? "second starts" : "second ends");
}

constexpr CComObjectMapEntry Row(const CLSID* clsid, HRESULT(WINAPI* update)(BOOL), CComCreatorFunction getClassObject,
                                 void(WINAPI* objectMain)(bool))
{
    return {clsid,   update,  getClassObject, CPlainObject::_CreatorClass::CreateInstance, nullptr, 0,
            nullptr, nullptr, objectMain};
}

class ModuleTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        calls.clear();
        CPlainObject::lives.Reset();
        ASSERT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    }
    void TearDown() override { CoUninitialize(); }

    CComObjectMapEntry map[3] = {
        Row(&CLSID_TestCounter, UpdateFirst, CPlainObject::_ClassFactoryCreatorClass::CreateInstance, MainFirst),
        Row(&CLSID_TestMonitor, UpdateSecond, CPlainObject::_ClassFactoryCreatorClass::CreateInstance, MainSecond),
        {}};
};

HRESULT Create(REFCLSID clsid)
{
    IUnknown* object = nullptr;
    const HRESULT created =
        CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, __uuidof(IUnknown), reinterpret_cast<void**>(&object));
    if (object != nullptr)
    {
        object->Release();
    }
    return created;
}
} // namespace

TEST_F(ModuleTest, InitAndTermCallEachObjectMainInOrder)
{
    CComModule module;
    module.Init(map, nullptr, &CLSID_TestMonitor);
    EXPECT_TRUE(IsEqualGUID(CComModule::m_libid, CLSID_TestMonitor));
    module.Term();
    EXPECT_EQ(calls, (std::vector<std::string>{"first starts", "second starts", "first ends", "second ends"}));
    module.Term();
    EXPECT_EQ(calls.size(), 4u); // a second term finds nothing
}

TEST_F(ModuleTest, RegisteredClassIsServedUntilItIsRevoked)
{
    CComModule module;
    module.Init(map, nullptr, nullptr);
    ASSERT_EQ(module.RegisterClassObjects(CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE), S_OK);
    EXPECT_NE(map[0].classObject, nullptr);
    EXPECT_NE(map[0].registration, 0u);
    EXPECT_NE(map[1].registration, 0u);
    EXPECT_EQ(Create(CLSID_TestCounter), S_OK);
    EXPECT_EQ(Create(CLSID_TestMonitor), S_OK);
    EXPECT_EQ(CPlainObject::lives.constructed, 2);

    EXPECT_EQ(module.RevokeClassObjects(), S_OK);
    EXPECT_EQ(Create(CLSID_TestCounter), REGDB_E_CLASSNOTREG);
    EXPECT_NE(map[0].classObject, nullptr); // kept until the term
    module.Term();
    EXPECT_EQ(map[0].classObject, nullptr);
}

TEST_F(ModuleTest, FirstFailureStopsTheRegistrationOfClassObjects)
{
    map[0].getClassObject = CComFailCreator<E_OUTOFMEMORY>::CreateInstance;
    CComModule module;
    module.Init(map, nullptr, nullptr);
    EXPECT_EQ(module.RegisterClassObjects(CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE), E_OUTOFMEMORY);
    EXPECT_EQ(map[1].classObject, nullptr);
    EXPECT_EQ(map[1].registration, 0u);
    EXPECT_EQ(module.RevokeClassObjects(), S_OK);
}

TEST_F(ModuleTest, RegistrationOfClassesRunsInMapOrderAndStopsAtTheFirstFailure)
{
    CComObjectMapEntry three[4] = {Row(&CLSID_TestCounter, UpdateFirst, nullptr, MainFirst),
                                   Row(&CLSID_TestMonitor, UpdateSecond, nullptr, MainSecond),
                                   Row(&IID_TestEvents, UpdateThird, nullptr, MainFirst),
                                   {}};
    CComModule module;
    module.Init(three, nullptr, nullptr);
    calls.clear();
    EXPECT_EQ(module.RegisterServer(FALSE), E_ACCESSDENIED);
    EXPECT_EQ(calls, (std::vector<std::string>{"register first", "register second"}));
    calls.clear();
    EXPECT_EQ(module.UnregisterServer(FALSE), S_OK);
    EXPECT_EQ(calls, (std::vector<std::string>{"unregister first", "unregister second", "unregister third"}));
}

TEST_F(ModuleTest, LockCountGoesUpAndDown)
{
    CComModule module;
    EXPECT_EQ(module.Lock(), 1);
    EXPECT_EQ(module.Lock(), 2);
    EXPECT_EQ(module.Unlock(), 1);
    EXPECT_EQ(module.GetLockCount(), 1);
    EXPECT_EQ(module.Unlock(), 0);
}

TEST_F(ModuleTest, PathOfTheModuleIsAbsolute)
{
    wchar_t path[MAX_PATH]{};
    ASSERT_EQ(GetModulePath(nullptr, path), S_OK);
    EXPECT_EQ(path[1], L':');
}

TEST_F(ModuleTest, ScriptThatIsNotThereFails)
{
    CComModule module;
    module.Init(map, nullptr, nullptr);
    EXPECT_TRUE(FAILED(module.UpdateRegistryFromResource(4711, TRUE)));
}

TEST(RegistryScriptTokens, ExecutableIsQuotedAndOtherModulesAreBare)
{
    const auto executable = MakeRegistryScriptTokens(L"C:\\Program Files\\a.exe", true);
    EXPECT_EQ(executable.module, L"\"C:\\Program Files\\a.exe\"");
    EXPECT_EQ(executable.moduleRaw, L"C:\\Program Files\\a.exe");
    const auto library = MakeRegistryScriptTokens(L"C:\\a.dll", false);
    EXPECT_EQ(library.module, L"C:\\a.dll");
}

TEST(RegistryScriptTokens, SingleQuotesInThePathAreDoubled)
{
    EXPECT_EQ(MakeRegistryScriptTokens(L"C:\\it's", true).moduleRaw, L"C:\\it''s");
}
