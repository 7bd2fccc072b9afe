#include "NetUtilities/RegistryKey.h"

#include <comdef.h>

#include <algorithm>
#include <cstring>

#include <gtest/gtest.h>

#include "NetUtilities/Handles.h"
#include "NetUtilities/RegistryWatcher.h"
#include "NetUtilities/Trace.h"
#include "tests/unit/support/TraceRecorder.h"

namespace
{
constexpr wchar_t Sandbox[] = L"Software\\HalcydUnitTests";

class RegistryKeyTest : public testing::Test
{
protected:
    void SetUp() override
    {
        RegDeleteTreeW(HKEY_CURRENT_USER, Sandbox);
        ASSERT_EQ(0U, key.Create(HKEY_CURRENT_USER, Sandbox, KEY_ALL_ACCESS));
        recorder.Reset();
    }
    void TearDown() override
    {
        key.Close();
        RegDeleteTreeW(HKEY_CURRENT_USER, Sandbox);
        recorder.Reset();
    }
    void SetRaw(const wchar_t* name, DWORD type, const void* data, DWORD size)
    {
        ASSERT_EQ(0, RegSetValueExW(key.Handle(), name, 0, type, static_cast<const BYTE*>(data), size));
    }

    RegistryKey key;
    TraceRecorder& recorder = TraceRecorder::Get();
};

// --- Names and roots ---

TEST_F(RegistryKeyTest, DisplayNameBeginsWithTheHive)
{
    EXPECT_EQ(L"HKCU\\Software\\HalcydUnitTests", key.Name());
    EXPECT_EQ(L"HKCR", RegistryKey::HivePrefix(HKEY_CLASSES_ROOT));
    EXPECT_EQ(L"HKLM", RegistryKey::HivePrefix(HKEY_LOCAL_MACHINE));
    EXPECT_EQ(L"HKU", RegistryKey::HivePrefix(HKEY_USERS));
    EXPECT_EQ(L"", RegistryKey::HivePrefix(HKEY_PERFORMANCE_DATA));
}

TEST_F(RegistryKeyTest, NameGrowsFromTheParents)
{
    RegistryKey child;
    ASSERT_EQ(0U, child.Create(HKEY_CURRENT_USER, std::wstring(Sandbox) + L"\\a", KEY_ALL_ACCESS));
    ASSERT_EQ(0U, child.Open(key, L"a", KEY_READ));
    EXPECT_EQ(L"HKCU\\Software\\HalcydUnitTests\\a", child.Name());
}

TEST_F(RegistryKeyTest, KeyMayBeOpenedRelativeToItself)
{
    RegistryKey child;
    ASSERT_EQ(0U, child.Create(HKEY_CURRENT_USER, std::wstring(Sandbox) + L"\\a", KEY_ALL_ACCESS));
    ASSERT_EQ(0U, key.Open(key, L"a", KEY_READ));
    EXPECT_EQ(L"HKCU\\Software\\HalcydUnitTests\\a", key.Name());
    EXPECT_TRUE(key.IsOpen());
}

TEST_F(RegistryKeyTest, FullPathTakesEachHiveNameOfTheTable)
{
    EXPECT_EQ(HKEY_LOCAL_MACHINE, RegistryKey::RootFromHiveName(L"HKLM"));
    EXPECT_EQ(HKEY_LOCAL_MACHINE, RegistryKey::RootFromHiveName(L"HKEY_LOCAL_MACHINE"));
    EXPECT_EQ(HKEY_CURRENT_USER, RegistryKey::RootFromHiveName(L"HKCU"));
    EXPECT_EQ(HKEY_CURRENT_USER, RegistryKey::RootFromHiveName(L"HKEY_CURRENT_USER"));
    EXPECT_EQ(HKEY_CLASSES_ROOT, RegistryKey::RootFromHiveName(L"HKCR"));
    EXPECT_EQ(HKEY_CLASSES_ROOT, RegistryKey::RootFromHiveName(L"HKEY_CLASSES_ROOT"));
    EXPECT_EQ(nullptr, RegistryKey::RootFromHiveName(L"HKEY_USERS"));
    EXPECT_EQ(nullptr, RegistryKey::RootFromHiveName(L"HKU"));
}

TEST_F(RegistryKeyTest, OpenAndCreateByFullPath)
{
    RegistryKey other;
    EXPECT_EQ(0U, other.Open(L"HKEY_CURRENT_USER\\Software\\HalcydUnitTests", KEY_READ));
    EXPECT_EQ(L"HKCU\\Software\\HalcydUnitTests", other.Name());
    EXPECT_EQ(0U, other.Create(L"HKCU\\Software\\HalcydUnitTests\\b\\c", KEY_ALL_ACCESS));
    EXPECT_EQ(0U, other.Open(L"HKCU\\Software\\HalcydUnitTests\\b\\c", KEY_READ));
}

TEST_F(RegistryKeyTest, FullPathWithoutKnownHiveReturns160Untraced)
{
    RegistryKey other;
    for (const wchar_t* path :
         {L"HKLM", L"", L"hklm\\Software", L"Hklm\\Software", L"HKU\\.DEFAULT", L"Nowhere\\x", L"\\Software"})
    {
        EXPECT_EQ(160U, other.Open(path, KEY_READ));
        EXPECT_EQ(160U, other.Create(path, KEY_READ));
    }
    EXPECT_EQ(160U, other.Open(nullptr, L"Software", KEY_READ));
    EXPECT_EQ(160U, other.Create(nullptr, L"Software", KEY_READ));
    EXPECT_TRUE(recorder.Messages().empty());
}

TEST_F(RegistryKeyTest, OpeningAnOpenKeyClosesTheFirstHandle)
{
    const HKEY first = key.Handle();
    ASSERT_EQ(0U, key.Open(HKEY_CURRENT_USER, L"Software", KEY_READ));
    DWORD subkeys = 0;
    const LSTATUS state = RegQueryInfoKeyW(first, nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, nullptr,
                                           nullptr, nullptr, nullptr, nullptr);
    EXPECT_TRUE(state == ERROR_INVALID_HANDLE || first == key.Handle());
}

TEST_F(RegistryKeyTest, FailedOpenLeavesTheObjectClosed)
{
    EXPECT_EQ(2U, key.Open(HKEY_CURRENT_USER, L"Software\\HalcydUnitTests\\missing", KEY_READ));
    EXPECT_FALSE(key.IsOpen());
}

TEST_F(RegistryKeyTest, CloseClearsTheName)
{
    key.Close();
    EXPECT_EQ(L"", key.Name());
    EXPECT_FALSE(key.IsOpen());
}

// --- Tracing of failures ---

TEST_F(RegistryKeyTest, MissingKeyAndValueAreSilent)
{
    RegistryKey other;
    RegistryValue value;
    std::wstring text;
    std::uint32_t number = 0;
    EXPECT_EQ(2U, other.Open(key, L"missing", KEY_READ));
    EXPECT_EQ(2U, key.ReadValue(L"missing", value));
    EXPECT_EQ(2U, key.ReadString(L"missing", text));
    EXPECT_EQ(2U, key.ReadDword(L"missing", number));
    EXPECT_TRUE(recorder.Messages().empty());
}

TEST_F(RegistryKeyTest, OtherFailuresAreTracedWithPathAndCode)
{
    key.Close(); // a null handle fails with ERROR_INVALID_HANDLE (6)
    RegistryValue value;
    std::wstring text;
    std::uint32_t number = 0;
    EXPECT_EQ(6U, key.ReadValue(L"v", value));
    EXPECT_EQ(6U, key.ReadString(L"v", text));
    EXPECT_EQ(6U, key.ReadDword(L"v", number));
    EXPECT_EQ(6U, key.WriteString(L"v", L""));
    EXPECT_EQ(6U, key.WriteDword(L"v", 1));
    EXPECT_EQ(6U, key.WriteBinary(L"v", &number, 4));
    EXPECT_EQ(6U, key.DeleteValue(L"v"));
    EXPECT_EQ(6U, key.DeleteKey(L"v"));
    EXPECT_EQ(6U, key.DeleteTree(L"v"));
    EXPECT_EQ(6U, key.NotifyChange(true, 15, nullptr));
    enum class Kind : std::uint32_t
    {
        None
    };
    Kind kind{};
    EXPECT_EQ(6U, key.ReadEnum(L"v", kind, Kind::None));
    const std::wstring end = L" Error 6 (0x6) - " + SystemErrorText(6);
    EXPECT_EQ((std::vector<std::wstring>{
                  L"RegQueryValueEx read size \\v" + end, L"RegQueryValueEx get size read wstring \\v" + end,
                  L"RegQueryValueEx read DWORD32 \\v" + end, L"RegSetValueEx write wstring \\v" + end,
                  L"RegSetValueEx write DWORD32 \\v" + end, L"RegSetValueEx write BYTE \\v" + end,
                  L"DeleteValue \\v" + end, L"RegDeleteKey \\v" + end, L"RegDeleteTree \\v" + end,
                  L"NotifyChange " + end, L"RegQueryValueEx read enum \\v" + end}),
              recorder.Messages());
}

TEST_F(RegistryKeyTest, RefusedAccessIsTracedWithTheDisplayNameAtLevelTwo)
{
    ASSERT_EQ(0U, key.WriteDword(L"number", 7));
    ASSERT_EQ(0U, key.Open(HKEY_CURRENT_USER, Sandbox, KEY_READ));
    EXPECT_EQ(5U, key.WriteDword(L"number", 8));
    EXPECT_EQ(5U, key.DeleteValue(L"number"));
    const std::wstring end = L" Error 5 (0x5) - " + SystemErrorText(5);
    EXPECT_TRUE(recorder.Has(1, 2, L"RegSetValueEx write DWORD32 HKCU\\Software\\HalcydUnitTests\\number" + end));
    EXPECT_TRUE(recorder.Has(1, 2, L"DeleteValue HKCU\\Software\\HalcydUnitTests\\number" + end));
}

TEST_F(RegistryKeyTest, DeleteOfAMissingValueIsTraced)
{
    EXPECT_EQ(2U, key.DeleteValue(L"missing"));
    EXPECT_TRUE(recorder.HasMessageStarting(L"DeleteValue HKCU\\Software\\HalcydUnitTests\\missing Error 2 (0x2)"));
}

TEST_F(RegistryKeyTest, FailedOpenAndCreateAreTraced)
{
    RegistryKey other;
    const std::wstring tooLong(300, L'x'); // longer than a key name may be
    const DWORD opened = other.Open(HKEY_CURRENT_USER, tooLong, KEY_READ);
    const DWORD created = other.Create(HKEY_CURRENT_USER, tooLong, KEY_ALL_ACCESS);
    ASSERT_NE(0U, created);
    EXPECT_TRUE(recorder.HasMessageStarting(L"RegCreateKeyEx HKCU\\" + tooLong + L" Error "));
    if (opened != 2) // Windows and Wine differ in what they say of such a name
    {
        EXPECT_TRUE(recorder.HasMessageStarting(L"RegOpenKeyEx HKCU\\" + tooLong + L" Error "));
    }
}

TEST_F(RegistryKeyTest, RefusedOpenIsTraced)
{
    RegistryKey other;
    // A root that is no handle at all.
    EXPECT_EQ(6U, other.Open(reinterpret_cast<HKEY>(std::intptr_t{0x1234}), L"x", KEY_READ));
    EXPECT_TRUE(recorder.HasMessageStarting(L"RegOpenKeyEx \\x Error 6 (0x6)"));
}

TEST_F(RegistryKeyTest, WithErrorReportsOffNothingIsTraced)
{
    RegistryKey silent(false);
    std::uint32_t number = 0;
    EXPECT_EQ(6U, silent.ReadDword(L"v", number));
    EXPECT_EQ(6U, silent.WriteDword(L"v", 1));
    EXPECT_EQ(6U, silent.NotifyChange(true, 15, nullptr));
    EXPECT_EQ(6U, silent.Open(reinterpret_cast<HKEY>(std::intptr_t{0x1234}), L"x", KEY_READ));
    EXPECT_TRUE(recorder.Messages().empty());
}

// --- Values ---

TEST_F(RegistryKeyTest, DwordRoundTrip)
{
    std::uint32_t number = 0;
    EXPECT_EQ(0U, key.WriteDword(L"number", 0xFFFFFFFE));
    EXPECT_EQ(0U, key.ReadDword(L"number", number, 5));
    EXPECT_EQ(0xFFFFFFFEU, number);
}

TEST_F(RegistryKeyTest, ReadDwordOfMissingValueReturns2AndLeavesTheDefault)
{
    std::uint32_t number = 1;
    EXPECT_EQ(2U, key.ReadDword(L"missing", number, 42));
    EXPECT_EQ(42U, number);
}

TEST_F(RegistryKeyTest, ReadDwordDoesNotLookAtTheType)
{
    const std::uint32_t raw = 0x01020304;
    SetRaw(L"binary", REG_BINARY, &raw, sizeof(raw));
    std::uint32_t number = 0;
    EXPECT_EQ(0U, key.ReadDword(L"binary", number));
    EXPECT_EQ(raw, number);
}

TEST_F(RegistryKeyTest, ReadDwordOfALongerValueReturns234AndTraces)
{
    const std::uint64_t raw = 1;
    SetRaw(L"long", REG_QWORD, &raw, sizeof(raw));
    std::uint32_t number = 0;
    EXPECT_EQ(234U, key.ReadDword(L"long", number, 42));
    EXPECT_TRUE(
        recorder.HasMessageStarting(L"RegQueryValueEx read DWORD32 HKCU\\Software\\HalcydUnitTests\\long Error 234"));
}

TEST_F(RegistryKeyTest, StringRoundTrip)
{
    std::wstring text;
    EXPECT_EQ(0U, key.WriteString(L"text", L"some text"));
    EXPECT_EQ(0U, key.ReadString(L"text", text));
    EXPECT_EQ(L"some text", text);
    EXPECT_EQ(0U, key.WriteString(L"text", L""));
    EXPECT_EQ(0U, key.ReadString(L"text", text, L"default"));
    EXPECT_EQ(L"", text);
}

TEST_F(RegistryKeyTest, ReadStringOfDwordValueReturns13AndKeepsDefault)
{
    ASSERT_EQ(0U, key.WriteDword(L"number", 1));
    std::wstring text = L"before";
    EXPECT_EQ(13U, key.ReadString(L"number", text, L"default"));
    EXPECT_EQ(L"default", text);
    EXPECT_TRUE(recorder.Messages().empty());
}

TEST_F(RegistryKeyTest, ReadStringOfMissingValueReturns2AndKeepsDefault)
{
    std::wstring text = L"before";
    EXPECT_EQ(2U, key.ReadString(L"missing", text, L"default"));
    EXPECT_EQ(L"default", text);
}

TEST_F(RegistryKeyTest, ReadStringOfSizeZeroIsEmpty)
{
    SetRaw(L"nothing", REG_SZ, nullptr, 0);
    std::wstring text = L"before";
    EXPECT_EQ(0U, key.ReadString(L"nothing", text, L"default"));
    EXPECT_EQ(L"", text);
}

TEST_F(RegistryKeyTest, ReadStringWithoutTerminatorLosesItsLastCharacter)
{
    SetRaw(L"bare", REG_SZ, L"abcd", 6); // had a NUL stood behind it, the platform would have counted that in
    std::wstring text;
    EXPECT_EQ(0U, key.ReadString(L"bare", text));
    EXPECT_EQ(L"ab", text);
}

TEST_F(RegistryKeyTest, ReadStringOfOddSizeTakesWholeCharacters)
{
    SetRaw(L"odd", REG_SZ, L"abcd", 7);
    std::wstring text;
    EXPECT_EQ(0U, key.ReadString(L"odd", text));
    EXPECT_EQ(L"ab", text);
    SetRaw(L"one", REG_SZ, L"ab", 1);
    EXPECT_EQ(0U, key.ReadString(L"one", text, L"default"));
    EXPECT_EQ(L"", text);
}

TEST_F(RegistryKeyTest, ReadStringDoesNotExpandVariables)
{
    constexpr wchar_t raw[] = L"%SystemRoot%\\x";
    SetRaw(L"expand", REG_EXPAND_SZ, raw, sizeof(raw));
    std::wstring text;
    EXPECT_EQ(0U, key.ReadString(L"expand", text));
    EXPECT_EQ(raw, text);
}

TEST_F(RegistryKeyTest, ReadValueTakesEachKnownType)
{
    const std::uint64_t raw = 0x1122334455667788;
    for (const DWORD type : {1UL, 2UL, 3UL, 4UL, 7UL, 11UL})
    {
        SetRaw(L"v", type, &raw, sizeof(raw));
        RegistryValue value;
        EXPECT_EQ(0U, key.ReadValue(L"v", value));
        EXPECT_EQ(L"v", value.name);
        EXPECT_EQ(type, value.type);
        ASSERT_GE(value.size, sizeof(raw)) << type;
        EXPECT_EQ(0, std::memcmp(value.data.get(), &raw, sizeof(raw)));
    }
}

TEST_F(RegistryKeyTest, ReadValueOfNoneValueReturns0WithAnEmptyRecord)
{
    for (const DWORD type : {0UL, 5UL, 6UL, 8UL, 77UL})
    {
        SetRaw(L"v", type, L"ab", 4);
        RegistryValue value;
        value.name = L"left over";
        EXPECT_EQ(0U, key.ReadValue(L"v", value));
        EXPECT_EQ(L"", value.name);
        EXPECT_EQ(0U, value.type);
        EXPECT_EQ(0U, value.size);
        EXPECT_EQ(nullptr, value.data);
    }
}

TEST_F(RegistryKeyTest, ReadValueOfMissingValueClearsTheRecord)
{
    RegistryValue value;
    value.name = L"left over";
    EXPECT_EQ(2U, key.ReadValue(L"missing", value));
    EXPECT_EQ(L"", value.name);
}

TEST_F(RegistryKeyTest, BinaryRoundTripOfManySizes)
{
    std::vector<std::byte> bytes(5000, std::byte{0xA5});
    for (const std::uint32_t size : {5000U, 1U, 0U, 4999U})
    {
        ASSERT_EQ(0U, key.WriteBinary(L"b", bytes.data(), size));
        RegistryValue value;
        ASSERT_EQ(0U, key.ReadValue(L"b", value));
        EXPECT_EQ(3U, value.type);
        EXPECT_EQ(size, value.Bytes().size());
    }
}

// --- Keys ---

TEST_F(RegistryKeyTest, EnumerationGivesEachSubkeyAndEndsWith259)
{
    std::vector<std::wstring> names = {L"a", L"a much longer name than the others", L"c"};
    for (const std::wstring& name : names)
    {
        RegistryKey child;
        ASSERT_EQ(0U, child.Create(HKEY_CURRENT_USER, std::wstring(Sandbox) + L"\\" + name, KEY_ALL_ACCESS));
    }
    std::vector<std::wstring> found;
    std::wstring name;
    FILETIME time{};
    DWORD index = 0;
    DWORD code = 0;
    while ((code = key.EnumSubkey(index, name, time)) == 0)
    {
        found.push_back(name);
        EXPECT_NE(0U, time.dwHighDateTime);
        ++index;
    }
    EXPECT_EQ(259U, code);
    std::sort(found.begin(), found.end());
    EXPECT_EQ(names, found);
}

TEST_F(RegistryKeyTest, EnumerationOfAClosedKeyReturnsTheQuerysFailure)
{
    key.Close();
    std::wstring name;
    FILETIME time{};
    EXPECT_EQ(6U, key.EnumSubkey(0, name, time));
}

TEST_F(RegistryKeyTest, DeleteKeyTakesOneKeyAndDeleteTreeAllBelow)
{
    RegistryKey child;
    ASSERT_EQ(0U, child.Create(HKEY_CURRENT_USER, std::wstring(Sandbox) + L"\\a\\b", KEY_ALL_ACCESS));
    child.Close();
    EXPECT_EQ(5U, key.DeleteKey(L"a")) << "it has a subkey";
    EXPECT_EQ(0U, key.DeleteTree(L"a"));
    EXPECT_EQ(2U, child.Open(key, L"a", KEY_READ));
    ASSERT_EQ(0U, child.Create(HKEY_CURRENT_USER, std::wstring(Sandbox) + L"\\c", KEY_ALL_ACCESS));
    EXPECT_EQ(0U, key.DeleteKey(L"c"));
    EXPECT_EQ(2U, child.Open(key, L"c", KEY_READ));
}

TEST_F(RegistryKeyTest, NotifyChangeSignalsAtTheNextChange)
{
    const UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    ASSERT_EQ(0U, key.NotifyChange(true, 15, event.get()));
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(event.get(), 0));
    RegistryKey writer;
    ASSERT_EQ(0U, writer.Open(HKEY_CURRENT_USER, Sandbox, KEY_WRITE));
    ASSERT_EQ(0U, writer.WriteDword(L"x", 1));
    EXPECT_EQ(DWORD{WAIT_OBJECT_0}, WaitForSingleObject(event.get(), 5000));
}

TEST_F(RegistryKeyTest, ReadHklmStringGivesTheValueOrTheDefault)
{
    RegistryKey machine;
    ASSERT_EQ(0U, machine.Create(HKEY_LOCAL_MACHINE, Sandbox, KEY_ALL_ACCESS));
    ASSERT_EQ(0U, machine.WriteString(L"text", L"value"));
    EXPECT_EQ(L"value", ReadHklmString(Sandbox, L"text", L"default"));
    EXPECT_EQ(L"default", ReadHklmString(Sandbox, L"missing", L"default"));
    machine.Close();
    RegDeleteTreeW(HKEY_LOCAL_MACHINE, Sandbox);
    EXPECT_EQ(L"default", ReadHklmString(Sandbox, L"text", L"default"));
}

// --- Multi-strings ---

TEST(MultiString, ListEndsAtTheFirstEmptyString)
{
    using List = std::list<std::wstring>;
    EXPECT_EQ((List{L"a", L"bc"}), ParseMultiString(std::wstring_view(L"a\0bc\0\0d\0", 8)));
    EXPECT_EQ((List{L"a", L"bc"}), ParseMultiString(std::wstring_view(L"a\0bc", 4)));
    EXPECT_EQ((List{L"a"}), ParseMultiString(std::wstring_view(L"a\0", 2)));
    EXPECT_EQ(List{}, ParseMultiString(std::wstring_view(L"\0a", 2)));
    EXPECT_EQ(List{}, ParseMultiString(std::wstring_view()));
}

TEST(MultiString, OddByteAtTheEndIsLeftOut)
{
    const wchar_t text[] = L"ab";
    const auto bytes = std::as_bytes(std::span(text));
    EXPECT_EQ((std::list<std::wstring>{L"a"}), ParseMultiString(bytes.first(3)));
}

TEST(MultiString, JoinGivesWhatParseTakesApart)
{
    const std::list<std::wstring> strings = {L"one", L"two"};
    EXPECT_EQ(std::wstring(L"one\0two\0\0", 9), JoinMultiString(strings));
    EXPECT_EQ(strings, ParseMultiString(JoinMultiString(strings)));
    EXPECT_EQ(std::wstring(L"\0", 1), JoinMultiString({}));
}

TEST(SplitValuePath, SplitsAtTheLastBackslash)
{
    std::wstring valueKey = L"left over";
    EXPECT_EQ(L"c", SplitValuePath(L"a\\b\\c", valueKey));
    EXPECT_EQ(L"a\\b", valueKey);
    EXPECT_EQ(L"", SplitValuePath(L"a\\", valueKey));
    EXPECT_EQ(L"a", valueKey);
}

TEST(SplitValuePath, WithoutBackslashBothStayEmpty)
{
    std::wstring valueKey = L"left over";
    EXPECT_EQ(L"", SplitValuePath(L"abc", valueKey));
    EXPECT_EQ(L"", valueKey);
    valueKey = L"left over";
    EXPECT_EQ(L"", SplitValuePath(L"", valueKey));
    EXPECT_EQ(L"", valueKey);
}

TEST_F(RegistryKeyTest, VariantOfAListIsAnArrayOfItsStrings)
{
    _variant_t variant;
    LoadVariantWithMultiSz(&variant, {L"one", L"two"});
    ASSERT_EQ(0x2008, variant.vt);
    LONG upper = 0;
    ASSERT_EQ(S_OK, SafeArrayGetUBound(variant.parray, 1, &upper));
    EXPECT_EQ(1, upper);
    (void)recorder.Lines();
    recorder.Reset();
    DisplayVariantArrayBstr(&variant);
    EXPECT_EQ((std::vector<std::wstring>{L"array[0]\t:one", L"array[1]\t:two"}), recorder.Messages());
}

TEST_F(RegistryKeyTest, VariantLoadTracesCountAndStrings)
{
    _variant_t variant;
    LoadVariantWithMultiSz(&variant, {L"one", L"two"});
    EXPECT_EQ((std::vector<std::wstring>{L"the multi-string contains 2 string(s)", L"loaded one into safearray",
                                         L"loaded two into safearray"}),
              recorder.Messages());
}

TEST_F(RegistryKeyTest, VariantOfAnEmptyListStaysEmpty)
{
    VARIANT variant;
    std::memset(&variant, 0xCC, sizeof(variant));
    LoadVariantWithMultiSz(&variant, {});
    EXPECT_EQ(VT_EMPTY, variant.vt);
    EXPECT_EQ((std::vector<std::wstring>{L"the multi-string buffer has no data"}), recorder.Messages());
}

TEST_F(RegistryKeyTest, DisplayRefusesAnArrayOfOtherDimensions)
{
    SAFEARRAYBOUND bounds[2] = {{1, 0}, {1, 0}};
    _variant_t variant;
    variant.vt = VT_ARRAY | VT_BSTR;
    variant.parray = SafeArrayCreate(VT_BSTR, 2, bounds);
    DisplayVariantArrayBstr(&variant);
    EXPECT_EQ((std::vector<std::wstring>{L"error, one-dimensional DNS safearray was not passed in"}),
              recorder.Messages());
}

// --- The watched debug switch ---

TEST_F(RegistryKeyTest, WatcherFollowsTheSwitch)
{
    constexpr wchar_t product[] = L"Software\\QRLS\\Sorvane";
    RegistryKey writer;
    ASSERT_EQ(0U, writer.Open(HKEY_LOCAL_MACHINE, product, KEY_ALL_ACCESS));
    RegistryWatcher watcher;
    watcher.Start();
    EXPECT_FALSE(watcher.Enabled());
    watcher.Poll();
    EXPECT_FALSE(watcher.Enabled());
    ASSERT_EQ(0U, writer.WriteDword(L"debug2", 7));
    ASSERT_EQ(DWORD{WAIT_OBJECT_0}, WaitForSingleObject(watcher.EventHandle(), 5000));
    EXPECT_FALSE(watcher.Enabled()) << "read at the next poll only";
    watcher.Poll();
    EXPECT_TRUE(watcher.Enabled());
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForSingleObject(watcher.EventHandle(), 0)) << "reset behind the reading";
    ASSERT_EQ(0U, writer.DeleteValue(L"debug2"));
    ASSERT_EQ(DWORD{WAIT_OBJECT_0}, WaitForSingleObject(watcher.EventHandle(), 5000)) << "armed again";
    watcher.Poll();
    EXPECT_FALSE(watcher.Enabled());
    watcher.Stop();
    EXPECT_EQ(nullptr, watcher.EventHandle());
}

TEST_F(RegistryKeyTest, WatcherOfAMissingKeyMakesNoEvent)
{
    RegistryKey machine;
    ASSERT_EQ(0U, machine.Open(HKEY_LOCAL_MACHINE, L"Software", KEY_ALL_ACCESS));
    ASSERT_EQ(0U, machine.DeleteTree(L"QRLS"));
    RegistryWatcher watcher;
    watcher.Start();
    EXPECT_EQ(nullptr, watcher.EventHandle());
    watcher.Poll();
    EXPECT_FALSE(watcher.Enabled());
    RegistryKey product; // as the environment has made it
    ASSERT_EQ(0U, product.Create(HKEY_LOCAL_MACHINE, L"Software\\QRLS\\Sorvane", KEY_WRITE));
    ASSERT_EQ(0U, product.WriteDword(L"TraceLevel", 6));
}

TEST_F(RegistryKeyTest, WatcherEventIsNamed)
{
    RegistryWatcher watcher;
    watcher.Start();
    const UniqueHandle event(OpenEventW(SYNCHRONIZE, FALSE, L"RegistryWatcher"));
    EXPECT_TRUE(event);
}
} // namespace
