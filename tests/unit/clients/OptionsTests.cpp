#include "clients/halcydctl/Options.h"

#include <gtest/gtest.h>

namespace
{
Options Parsed(const std::vector<std::string>& arguments)
{
    const ParseOutcome outcome = ParseCommandLine(arguments);
    EXPECT_TRUE(outcome.options.has_value()) << outcome.text;
    return outcome.options.value_or(Options{});
}

int Refused(const std::vector<std::string>& arguments)
{
    const ParseOutcome outcome = ParseCommandLine(arguments);
    EXPECT_FALSE(outcome.options.has_value());
    EXPECT_FALSE(outcome.text.empty());
    return outcome.exitCode;
}

const std::string Guid = "{4A1C7E01-3B52-4D0F-9E61-0C5D8A2B7001}";
} // namespace

TEST(ClientCommandLine, EachVerbIsUnderstood)
{
    EXPECT_EQ(Parsed({"status"}).verb, Verb::Status);
    EXPECT_EQ(Parsed({"list"}).verb, Verb::List);
    EXPECT_EQ(Parsed({"watch"}).verb, Verb::Watch);
    EXPECT_EQ(Parsed({"open"}).verb, Verb::Open);
    EXPECT_EQ(Parsed({"close"}).verb, Verb::Close);
    EXPECT_EQ(Parsed({"trace"}).verb, Verb::Trace);
    EXPECT_EQ(Parsed({"trace", "levels"}).verb, Verb::TraceLevels);
    EXPECT_EQ(Parsed({"trace", "set-level", "5"}).verb, Verb::TraceSetLevel);
    EXPECT_EQ(Parsed({"dns", "get", Guid}).verb, Verb::DnsGet);
    EXPECT_EQ(Parsed({"dns", "set", Guid, "1.1.1.1", "2.2.2.2"}).verb, Verb::DnsSet);
    EXPECT_EQ(Parsed({"dns", "set", Guid}).values.size(), 0u);
    EXPECT_EQ(Parsed({"dns-suffix", "set", Guid, "a", "b"}).verb, Verb::DnsSuffixSet);
    EXPECT_EQ(Parsed({"dns-domain", "get", Guid}).verb, Verb::DnsDomainGet);
    EXPECT_EQ(Parsed({"wins", "get", Guid}).verb, Verb::WinsGet);
    EXPECT_EQ(Parsed({"wins", "set", Guid, "1.1.1.1", ""}).values, (std::vector<std::string>{"1.1.1.1", ""}));
    EXPECT_EQ(Parsed({"dhcp", "enable", Guid}).verb, Verb::DhcpEnable);
    EXPECT_EQ(Parsed({"dhcp", "release", Guid}).verb, Verb::DhcpRelease);
    EXPECT_EQ(Parsed({"dhcp", "renew", Guid}).verb, Verb::DhcpRenew);
    EXPECT_EQ(Parsed({"ip", "get", Guid}).guid, Guid);
    EXPECT_EQ(Parsed({"ip", "set", Guid, "10.0.0.5/24"}).verb, Verb::IpSet);
    EXPECT_EQ(Parsed({"registry", "get", "HKEY_LOCAL_MACHINE\\X", "v"}).verb, Verb::RegistryGet);
    EXPECT_EQ(Parsed({"registry", "set", "K", "v", "1", "--type", "dword"}).type, "dword");
    EXPECT_EQ(Parsed({"registry", "delete", "K", "v"}).verb, Verb::RegistryDelete);
    EXPECT_TRUE(Parsed({"registry", "delete", "K", "--key"}).wholeKey);
    EXPECT_EQ(Parsed({"service", "query", "PolicyAgent"}).service, "PolicyAgent");
    EXPECT_EQ(Parsed({"service", "stop", "PolicyAgent"}).verb, Verb::ServiceStop);
    EXPECT_EQ(Parsed({"service", "start", "PolicyAgent"}).verb, Verb::ServiceStart);
    EXPECT_TRUE(Parsed({"bindings", "disable", Guid, "--ppp"}).pppDevice);
    EXPECT_EQ(Parsed({"bindings", "restore"}).verb, Verb::BindingsRestore);
    EXPECT_EQ(Parsed({"bindings", "show"}).verb, Verb::BindingsShow);
}

TEST(ClientCommandLine, CommonOptionsMayStandBeforeOrBehindTheVerb)
{
    EXPECT_TRUE(Parsed({"--json", "list"}).json);
    EXPECT_TRUE(Parsed({"list", "--json"}).json);
    EXPECT_TRUE(Parsed({"trace", "levels", "--json"}).json);
    EXPECT_TRUE(Parsed({"list", "--start"}).start);
    EXPECT_EQ(Parsed({"watch", "--color", "always"}).color, ColorChoice::Always);
    EXPECT_EQ(Parsed({"--color", "always", "watch", "--no-color"}).color, ColorChoice::Never);
    EXPECT_EQ(Parsed({"watch"}).color, ColorChoice::Automatic);
}

TEST(ClientCommandLine, JsonIsNeverColoured)
{
    EXPECT_EQ(Parsed({"watch", "--color", "always", "--json"}).color, ColorChoice::Never);
}

TEST(ClientCommandLine, TraceOptions)
{
    const Options options = Parsed({"trace", "--follow", "--source", "netmon", "--level", "3", "-n", "50"});
    EXPECT_TRUE(options.follow);
    EXPECT_EQ(options.source, 11);
    EXPECT_EQ(options.level, 3);
    EXPECT_EQ(options.lines, 50u);
    EXPECT_EQ(Parsed({"trace"}).source, std::nullopt);
    EXPECT_EQ(Parsed({"trace", "set-level", "0", "--source", "19"}).source, 19);
    EXPECT_EQ(Parsed({"trace", "set-level", "6"}).newLevel, 6);
}

TEST(ClientCommandLine, WatchOptions)
{
    const Options options = Parsed({"watch", "--count", "3", "--seconds", "9", "--no-table"});
    EXPECT_EQ(options.count, 3u);
    EXPECT_EQ(options.seconds, 9u);
    EXPECT_FALSE(options.table);
    EXPECT_TRUE(Parsed({"watch"}).table);
}

TEST(ClientCommandLine, MistakesEndWithTwo)
{
    for (const std::vector<std::string>& arguments :
         std::vector<std::vector<std::string>>{{},
                                               {"nonsense"},
                                               {"list", "extra"},
                                               {"list", "--nonsense"},
                                               {"trace", "--source", "37"},
                                               {"trace", "--source", "Nobody"},
                                               {"trace", "--level", "10"},
                                               {"trace", "set-level"},
                                               {"trace", "set-level", "10"},
                                               {"trace", "set-level", "-1"},
                                               {"dns"},
                                               {"dns", "get"},
                                               {"ip", "set", Guid},
                                               {"wins", "set", Guid},
                                               {"wins", "set", Guid, "1", "2", "3"},
                                               {"registry", "delete", "K"},
                                               {"registry", "delete", "K", "v", "--key"},
                                               {"registry", "set", "K", "v"},
                                               {"registry", "set", "K", "v", "1", "--type", "x"},
                                               {"service", "stop"},
                                               {"bindings", "disable"},
                                               {"--color", "blue", "list"},
                                               {"watch", "--count", "-1"}})
    {
        EXPECT_EQ(Refused(arguments), 2) << (arguments.empty() ? "" : arguments.back());
    }
}

TEST(ClientCommandLine, HelpAndVersionEndWithZero)
{
    EXPECT_EQ(Refused({"--help"}), 0);
    EXPECT_EQ(Refused({"--version"}), 0);
    EXPECT_EQ(Refused({"trace", "--help"}), 0);
    EXPECT_EQ(Refused({"bindings", "disable", "--help"}), 0);
    EXPECT_NE(ParseCommandLine({"--version"}).text.find("halcydctl 1."), std::string::npos);
    EXPECT_NE(ParseCommandLine({"--help"}).text.find("Exit codes: 0 done"), std::string::npos);
}

TEST(ClientCommandLine, SourcesByNameAndNumber)
{
    EXPECT_EQ(SourceFromText("General"), 1);
    EXPECT_EQ(SourceFromText("iproute"), 34);
    EXPECT_EQ(SourceFromText("0"), 0);
    EXPECT_EQ(SourceFromText("36"), 36);
    EXPECT_EQ(SourceFromText("37"), std::nullopt);
    EXPECT_EQ(SourceFromText("1x"), std::nullopt);
    EXPECT_EQ(SourceFromText(""), std::nullopt);
    EXPECT_EQ(SourceName(31), "WiFi");
    EXPECT_EQ(SourceName(2), "2");
}
