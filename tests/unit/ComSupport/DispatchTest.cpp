#include "TestObjects.h"

#include <gtest/gtest.h>

namespace
{
// The platform's own library stands in for ours: font objects, version 2.0.
constexpr GUID StandardLibrary = {0x00020430, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
constexpr IID FontInterface = {0xBEF6E002, 0xA874, 0x101A, {0x8B, 0xBA, 0x00, 0xAA, 0x00, 0x30, 0x0C, 0xAB}};
constexpr GUID MissingLibrary = {0x7A1B2C01, 0x1111, 0x4222, {0x83, 0x33, 0x44, 0x44, 0x55, 0x55, 0x66, 0x09}};

template <const GUID* Library>
class CScripted : public CComObjectRootEx<CComMultiThreadModel>,
                  public IDispatchImpl<IDispatch, &FontInterface, Library, 2, 0>
{
public:
    BEGIN_COM_MAP(CScripted)
    COM_INTERFACE_ENTRY(IDispatch)
    END_COM_MAP()
};

template <const GUID* Library>
CComObject<CScripted<Library>>* Make()
{
    CComObject<CScripted<Library>>* object = nullptr;
    EXPECT_EQ(CComCreator<CComObject<CScripted<Library>>>::Make(nullptr, &object), S_OK);
    object->AddRef();
    return object;
}
} // namespace

TEST(Dispatch, TypeInformationComesFromTheRegisteredLibrary)
{
    TestModule module;
    auto* const object = Make<&StandardLibrary>();
    UINT count = 0;
    EXPECT_EQ(object->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(object->GetTypeInfoCount(nullptr), E_POINTER);

    ITypeInfo* info = nullptr;
    ASSERT_EQ(object->GetTypeInfo(0, LOCALE_NEUTRAL, &info), S_OK);
    TYPEATTR* attributes = nullptr;
    ASSERT_EQ(info->GetTypeAttr(&attributes), S_OK);
    EXPECT_TRUE(IsEqualGUID(attributes->guid, FontInterface));
    info->ReleaseTypeAttr(attributes);
    info->Release();

    EXPECT_EQ(object->GetTypeInfo(1, LOCALE_NEUTRAL, &info), DISP_E_BADINDEX);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(object->GetTypeInfo(0, LOCALE_NEUTRAL, nullptr), E_POINTER);
    EXPECT_EQ(object->Release(), 0u);
}

TEST(Dispatch, NamesAreLookedUpInTheLibrary)
{
    TestModule module;
    auto* const object = Make<&StandardLibrary>();
    wchar_t known[] = L"Bold";
    wchar_t unknown[] = L"NoSuchMember";
    LPOLESTR name = known;
    DISPID id = -1;
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_NEUTRAL, &id), S_OK);
    EXPECT_GE(id, 0);
    name = unknown;
    EXPECT_EQ(object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_NEUTRAL, &id), DISP_E_UNKNOWNNAME);
    EXPECT_EQ(object->Release(), 0u);
}

TEST(Dispatch, MoreArgumentsThanAMemberTakesAreRefusedBeforeItIsCalled)
{
    TestModule module;
    // The font interface has properties only, and the object behind it no member to call: what is not refused shows as
    // another error than the one for a wrong count.
    auto* const object = Make<&StandardLibrary>();
    wchar_t known[] = L"Bold";
    LPOLESTR name = known;
    DISPID id = 0;
    ASSERT_EQ(object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_NEUTRAL, &id), S_OK);
    VARIANTARG values[2]{};
    DISPID put = DISPID_PROPERTYPUT;
    DISPPARAMS two{values, &put, 2, 1};
    EXPECT_EQ(object->Invoke(id, IID_NULL, LOCALE_NEUTRAL, DISPATCH_PROPERTYPUT, &two, nullptr, nullptr, nullptr),
              DISP_E_BADPARAMCOUNT);
    DISPPARAMS one{values, nullptr, 1, 0};
    EXPECT_EQ(object->Invoke(id, IID_NULL, LOCALE_NEUTRAL, DISPATCH_PROPERTYGET, &one, nullptr, nullptr, nullptr),
              DISP_E_BADPARAMCOUNT);
    EXPECT_EQ(object->Invoke(0x7FFF, IID_NULL, LOCALE_NEUTRAL, DISPATCH_METHOD, &two, nullptr, nullptr, nullptr),
              DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(object->Release(), 0u);
}

TEST(Dispatch, WithoutAnyLibraryEveryCallFailsAndNothingCrashes)
{
    TestModule module;
    auto* const object = Make<&MissingLibrary>();
    ITypeInfo* info = nullptr;
    EXPECT_TRUE(FAILED(object->GetTypeInfo(0, LOCALE_NEUTRAL, &info)));
    wchar_t text[] = L"Bold";
    LPOLESTR name = text;
    DISPID id = 0;
    EXPECT_TRUE(FAILED(object->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_NEUTRAL, &id)));
    DISPPARAMS none{};
    EXPECT_TRUE(FAILED(object->Invoke(1, IID_NULL, LOCALE_NEUTRAL, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr)));
    EXPECT_EQ(object->Release(), 0u);
}
