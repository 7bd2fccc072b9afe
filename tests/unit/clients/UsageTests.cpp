// What halcydctl says to a person who types: help, mistakes, and errors with their cures.

#include <gtest/gtest.h>

#include "clients/halcydctl/Failure.h"
#include "clients/halcydctl/MonitorEvent.h"
#include "clients/halcydctl/Options.h"
#include "clients/halcydctl/SettingText.h"

namespace
{
std::string Said(const std::vector<std::string>& arguments)
{
    return ParseCommandLine(arguments).text;
}

bool Says(const std::vector<std::string>& arguments, const std::string& words)
{
    return Said(arguments).find(words) != std::string::npos;
}
} // namespace

TEST(ClientMistakes, UnknownVerbIsNamedTogetherWithThoseThatThereAre)
{
    EXPECT_TRUE(Says({"frobnicate"}, "'frobnicate' is no verb. There are: status, list, watch, open, close, trace"));
    EXPECT_TRUE(Says({"--json", "frobnicate"}, "'frobnicate' is no verb"));
    EXPECT_TRUE(Says({"dns", "frobnicate"}, "'frobnicate' is no verb of dns. There are: get, set."));
}

TEST(ClientMistakes, MissingVerbIsAskedForByName)
{
    EXPECT_TRUE(Says({}, "A verb is missing: status, list"));
    EXPECT_TRUE(Says({"dhcp"}, "A verb of dhcp is missing: enable, release, renew."));
}

TEST(ClientMistakes, MissingArgumentIsNamed)
{
    EXPECT_TRUE(Says({"dns", "get"}, "GUID is required."));
    EXPECT_TRUE(Says({"registry", "delete", "K"}, "VALUE or --key is required."));
}

TEST(ClientHelp, SpeaksOfVerbsAndShowsNoMarksOfTheParser)
{
    EXPECT_TRUE(Says({"--help"}, "Usage: halcydctl [OPTIONS] VERB"));
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{"--help"},
                                               {"watch", "--help"},
                                               {"trace", "--help"},
                                               {"dns", "set", "--help"},
                                               {"wins", "set", "--help"},
                                               {"ip", "set", "--help"},
                                               {"registry", "set", "--help"}})
    {
        const std::string help = Said(arguments);
        for (const char* mark : {"SUBCOMMAND", "Subcommand", "TEXT", "UINT", "{", "x)", "INT in"})
        {
            EXPECT_EQ(std::string::npos, help.find(mark)) << mark << " in " << help;
        }
    }
    EXPECT_TRUE(Says({"dns", "set", "--help"}, "halcydctl dns set [OPTIONS] GUID [VALUE...]"));
    EXPECT_TRUE(Says({"dns", "get", "--help"}, "Shows the DNS servers of an adapter"));
}

TEST(ClientArguments, AdapterIdIsTakenInAnyCaseAndWithoutBraces)
{
    const std::string id = "{4A1C7E01-3B52-4D0F-9E61-0C5D8A2B7001}";
    EXPECT_EQ(id, AdapterIdFromText(id));
    EXPECT_EQ(id, AdapterIdFromText("{4a1c7e01-3b52-4d0f-9e61-0c5d8a2b7001}"));
    EXPECT_EQ(id, AdapterIdFromText("4a1c7e01-3b52-4d0f-9e61-0c5d8a2b7001"));
    EXPECT_EQ("SHORT", AdapterIdFromText("short"));
    EXPECT_EQ(id, ParseCommandLine({"dns", "get", "4a1c7e01-3b52-4d0f-9e61-0c5d8a2b7001"}).options->guid);
}

TEST(ClientArguments, RootOfARegistryPathIsSpelledAsTheServiceTakesIt)
{
    EXPECT_EQ("HKEY_LOCAL_MACHINE\\Software\\x", RegistryPathFromText("hklm\\Software\\x"));
    EXPECT_EQ("HKEY_LOCAL_MACHINE\\x", RegistryPathFromText("HKEY_local_MACHINE\\x"));
    EXPECT_EQ("HKEY_CURRENT_USER\\x", RegistryPathFromText("HKCU\\x"));
    EXPECT_EQ("HKEY_CLASSES_ROOT\\x", RegistryPathFromText("hkcr\\x"));
    EXPECT_EQ("HKEY_LOCAL_MACHINE", RegistryPathFromText("hklm"));
    EXPECT_EQ("HKU\\x", RegistryPathFromText("HKU\\x"));
    EXPECT_EQ("hklmx\\x", RegistryPathFromText("hklmx\\x"));
    EXPECT_EQ("", RegistryPathFromText(""));
    EXPECT_EQ("HKEY_LOCAL_MACHINE\\x", ParseCommandLine({"registry", "get", "HKLM\\x", "v"}).options->key);
}

TEST(ClientCures, EveryErrorNumberHasAReasonAndACure)
{
    for (std::uint32_t status = 1; status < 2000; ++status)
    {
        const Failure failure = ExplainStatus(L"Trying", status);
        EXPECT_FALSE(failure.reason.empty()) << status;
        EXPECT_FALSE(failure.cure.empty()) << status;
        EXPECT_FALSE(SettingResultCure(status).empty()) << status;
    }
    EXPECT_EQ(L"There is no such key or value.", ExplainStatus(L"", ERROR_FILE_NOT_FOUND).reason);
    EXPECT_EQ(L"The path does not begin with a root that the service knows.",
              ExplainStatus(L"", ERROR_BAD_ARGUMENTS).reason);
    EXPECT_EQ(L"There is no service of this name.", ExplainStatus(L"", ERROR_SERVICE_DOES_NOT_EXIST).reason);
    EXPECT_EQ(L"The ids stand in: halcydctl list --json.", SettingResultCure(0x80041017));
}

TEST(ClientServices, StateTellsWhetherAStopOrAStartCameAbout)
{
    for (const auto& [state, afterStop, afterStart] :
         {std::tuple{1u, true, false}, std::tuple{2u, false, true}, std::tuple{3u, true, false},
          std::tuple{4u, false, true}, std::tuple{5u, false, false}, std::tuple{7u, false, false},
          std::tuple{0u, false, false}})
    {
        EXPECT_EQ(afterStop, ServiceStateFollows(state, true)) << state;
        EXPECT_EQ(afterStart, ServiceStateFollows(state, false)) << state;
    }
}

TEST(ClientEvents, AddressEventThatNamesNoAdapterIsShownInWords)
{
    MonitorEvent event;
    event.event = 7;
    EXPECT_NE(std::wstring::npos, EventLine(event, L"no node", 30).find(L"(one of the adapters)"));
    EXPECT_EQ("no node", ToJson(event, L"no node")["adapter"]);
}
