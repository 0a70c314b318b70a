// The command line and the file with descriptions.
// Entered by the test's thread; the programs are processes. No lock.
#include "AnnounceTest.h"
#include "Paths.h"

#include <unistd.h>

#include <array>
#include <filesystem>
#include <limits>
#include <map>
#include <set>
#include <utility>

namespace orvx::announce {
namespace {

class TheOptions : public AnnounceTest {
  protected:
    /// The error message for these arguments.
    static std::string refusal(const Words& arguments) {
        return Announce(arguments).ended(125).errors;
    }
    std::string refusalOfSet(const std::string& content) const {
        return refusal({"--registry", "http://127.0.0.1", "--from", folder.write("set", content)});
    }

    const Folder folder;
};

TEST_F(TheOptions, DescribeTheServiceAsTheRegistryShowsIt) {
    Announce announce(echo() + Words{"--service-version", "1.2", "--category", "a b", "--category",
                                     "c", "--privilege", "read", "--description", "Küche", "--uri",
                                     "/v1/echo", "--host", "10.0.0.7"});
    announce.awaitOutput(" announced ");
    EXPECT_EQ(entries().at(0).at("path"), "/v1/echo");
    EXPECT_EQ(entries().at(0).at("service"), json({{"name", "echo"},
                                                   {"uri", "/v1/echo"},
                                                   {"description", "Küche"},
                                                   {"port", service.port()},
                                                   {"versions", {"1.2"}},
                                                   {"privileges", {"read"}},
                                                   {"serviceCategories", {"a b", "c"}},
                                                   {"host", "10.0.0.7"}}));
}

TEST_F(TheOptions, AreListedInWordsAndNotInThoseOfTheParser) {
    const std::string help = Announce({"--help"}).ended(0).output;
    EXPECT_THAT(help, HasSubstr("--ready KIND=tcp|none"));
    EXPECT_THAT(help, Not(HasSubstr("->")));
}

TEST_F(TheOptions, MayComeFromAFileWithAllThatJsonCan) {
    json lamp{{"name", "lamp"},
              {"port", 1},
              {"uri", "/l"},
              {"description", "x"},
              {"privileges", json::array()},
              {"serviceCategories", {"a"}},
              {"versions", {"1", "2"}},
              {"host", "h"}};
    const json properties{{"weight", 1.5},
                          {"most", std::numeric_limits<std::uint64_t>::max()},
                          {"tags", {{"deep", {nullptr, true, -7}}}}};
    lamp["properties"] = properties;
    const json set{lamp, {{"name", "bell"}, {"port", 2}}};
    Announce announce({"--registry", urlOf(registry.port()), "--from",
                       folder.write("set", set.dump()), "--host", "other"});
    EXPECT_TRUE(eventually([this] { return entries().size() == 2; }));
    std::map<std::string, json> services;
    for (const json& entry : entries()) {
        services[entry.at("path")] = entry.at("service");
    }
    lamp.erase("properties");
    lamp.update(properties);
    // As text: to the JSON library 2^64-1 equals -1.
    EXPECT_EQ(services.at("/l").dump(), lamp.dump());
    EXPECT_EQ(services.at("/bell/other:2").at("host"), "other");
}

TEST_F(TheOptions, GiveEachInstanceOfAServiceAnEntryOfItsOwn) {
    Announce first(echo() + Words{"--host", "10.0.0.1"});
    first.awaitOutput(" announced ");
    Announce second(echo() + Words{"--host", "10.0.0.2"});
    second.awaitOutput(" announced ");
    EXPECT_EQ(entries().size(), 2U);
    first.stopped(0);
    ASSERT_EQ(entries().size(), 1U);
    EXPECT_EQ(entries().at(0).at("path"), "/echo/10.0.0.2:" + std::to_string(service.port()));
}

TEST_F(TheOptions, TakeALoopbackAddressAsTheHostIfThatOfTheRegistryIsOne) {
    for (const std::string host : {"localhost", "127.8.9.10", "[::1]"}) {
        HostileServer proxy;
        Announce announce({"--registry", "http://" + host, "--proxy", urlOf(proxy.port()), "--name",
                           "bell", "--port", "1"});
        ASSERT_TRUE(proxy.waitForRequests(1));
        EXPECT_EQ(json::parse(proxy.requests().at(0).body).at("host"), "127.0.0.1") << host;
    }
}

TEST_F(TheOptions, EscapeNameAndHostInTheDefaultUri) {
    const json set{{{"name", "a b/ü?"}, {"port", 1}, {"host", "10.0.0.1"}},
                   {{"name", "-._~A9"}, {"port", 2}, {"host", "h%st"}},
                   {{"name", "v6"}, {"port", 3}, {"host", "2001:db8::1"}},
                   {{"name", "v6"}, {"port", 4}, {"host", "[2001:db8::1]"}},
                   {{"name", "as it is"}, {"port", 5}, {"uri", "a%20b"}}};
    Announce announce(
        {"--registry", urlOf(registry.port()), "--from", folder.write("set", set.dump())});
    EXPECT_TRUE(eventually([&] { return entries().size() == set.size(); }));
    std::set<std::string> paths;
    for (const json& entry : entries()) {
        paths.insert(entry.at("path"));
    }
    EXPECT_THAT(
        paths, ::testing::ElementsAre("/-._~A9/h%25st:2", "/a%20b", "/a%20b%2F%C3%BC%3F/10.0.0.1:1",
                                      "/v6/2001:db8::1:3", "/v6/2001:db8::1:4"));
}

TEST_F(TheOptions, TakeAnAddressOfIpV6WithBracketsOrWithout) {
    for (const std::string host : {"[::1]", "::1"}) {
        Announce announce(echo() + Words{"--host", host});
        announce.awaitOutput(" announced ");
        EXPECT_EQ(entries().at(0).at("service").at("host"), "::1");
        announce.stopped(0);
    }
    Announce announce({"--registry", urlOf(registry.port()), "--from",
                       folder.write("set", R"([{"name":"a","port":1,"host":"[::2]"}])")});
    announce.awaitOutput(" announced ");
    EXPECT_EQ(entries().at(0).at("service").at("host"), "::2");
}

TEST_F(TheOptions, TakeTheHostFromTheMachineUnlessTheRegistryIsThere) {
    Announce announce(echo());
    announce.awaitOutput(" announced ");
    EXPECT_EQ(entries().at(0).at("service").at("host"), "127.0.0.1");
    std::array<char, 256> name{};
    ASSERT_EQ(::gethostname(name.data(), name.size() - 1), 0);
    passOnInFront();
    Announce elsewhere({"--registry", "http://registry.invalid", "--proxy", urlOf(front.port()),
                        "--name", "bell", "--port", "1"});
    ASSERT_TRUE(front.waitForRequests(1));
    EXPECT_EQ(json::parse(front.requests().at(0).body).at("host"), name.data());
}

TEST_F(TheOptions, ThatMakeNoSenseAreRefusedWithTheReason) {
    const Words good{"--registry", "http://127.0.0.1", "--name", "a", "--port", "1"};
    EXPECT_THAT(refusal({}), HasSubstr("--registry is required"));
    EXPECT_THAT(refusal({"--registry", "http://h"}), HasSubstr("--name or --from"));
    EXPECT_THAT(refusal({"--registry", "http://h", "--name", "a"}), HasSubstr("no port"));
    EXPECT_THAT(refusal(good + Words{"--"}), HasSubstr("no command"));
    EXPECT_THAT(refusal(good + Words{"true"}), HasSubstr("true"));
    EXPECT_THAT(refusal(good + Words{"--category", "a", "true"}), HasSubstr("true"));
    EXPECT_THAT(refusal(good + Words{"--service-version", "\xff"}), HasSubstr("UTF-8"));
    EXPECT_THAT(refusal(good + Words{"--stop-timeout", "nan"}), HasSubstr("--stop-timeout"));
    EXPECT_THAT(refusal(good + Words{"--unknown"}), HasSubstr("--unknown"));
    EXPECT_THAT(refusal(good + Words{"--ready-http", "health"}), HasSubstr("begin with /"));
    EXPECT_THAT(refusal(good + Words{"--ready", "soon"}), HasSubstr("soon"));
    EXPECT_THAT(refusal(good + Words{"--ca-file", "/there/is/none"}), HasSubstr("/there/is/none"));
    EXPECT_THAT(refusal(good + Words{"--ca-file", "/dev/null"}), HasSubstr("https"));
    EXPECT_THAT(refusal(good + Words{"--stop-timeout", "-1"}), HasSubstr("--stop-timeout"));
    EXPECT_THAT(refusal(good + Words{"--token-file", "/dev/null"}), Not(IsEmpty()));
}

TEST_F(TheOptions, TakeDecimalNumbersOnly) {
    const Words good{"--registry", "http://127.0.0.1:1", "--name", "a", "--port", "1"};
    for (const std::string option :
         {"--port", "--check-interval", "--health-failures", "--health-successes"}) {
        for (const std::string number : {"010", "0x10", "+1"}) {
            Words arguments = good;
            if (option == "--port") {
                arguments.resize(4);
            }
            EXPECT_EQ(refusal(arguments + Words{option, number}),
                      "orvx-announce: " + option + ": not a decimal number: " + number +
                          "; see orvx-announce --help\n");
        }
    }
}

TEST_F(TheOptions, TakeAPathThatIsPercentEncodedOnly) {
    const Words good{"--registry", "http://127.0.0.1:1", "--name", "a", "--port", "1"};
    for (const std::string option : {"--ready-http", "--health-http"}) {
        for (const char* path : {"/a b", "/a\r\nX: y", "/a\tb", "/\x7f", "/\xc3\xbc", "/a#b"}) {
            EXPECT_EQ(refusal(good + Words{option, path}),
                      "orvx-announce: " + option +
                          ": the path must be percent-encoded; see orvx-announce --help\n")
                << path;
        }
    }
    const testing::RefusedPort port;
    Announce announce(Words{"--registry", urlOf(registry.port()), "--name", "a", "--port",
                            std::to_string(port.port()), "--health-http", "/~a%20b/;c?d=e&f"});
    announce.awaitOutput(" announced ");
    announce.stopped(0);
}

TEST_F(TheOptions, ThatCanNeverWorkAreRefusedBeforeTheCommandStarts) {
    const auto plain = folder.write("plain", "no PEM\n");
    const auto started = folder.file("started");
    using Case = std::pair<Words, std::string>;
    for (const auto& [arguments, text] :
         {Case{{"--proxy", "x"}, "--proxy must be of the form http://host:port"},
          Case{{"--proxy", "https://x:1"}, "--proxy must be of the form http://host:port"},
          Case{{"--unix-socket", std::string(200, 'x')}, "--unix-socket must not be longer than"},
          Case{{"--ca-file", plain}, "--ca-file: " + plain + " contains no certificate"},
          Case{{"--client-cert", plain}, "--client-cert: " + plain + " contains no certificate"}}) {
        const Words all =
            Words{"--registry", "https://127.0.0.1:1", "--name", "a", "--port", "1"} + arguments;
        for (const Words& more : {Words{}, shell("touch " + started)}) {
            const std::string told = refusal(all + more);
            EXPECT_THAT(told, ::testing::StartsWith("orvx-announce: " + text));
            EXPECT_EQ(told.find('\n'), told.size() - 1) << told;
        }
    }
    EXPECT_FALSE(std::filesystem::exists(started));
}

TEST_F(TheOptions, RefuseAnEmptyValueInsteadOfTakingTheNextArgument) {
    const Words good{"--registry", "http://127.0.0.1", "--port", "1"};
    EXPECT_EQ(refusal(good + Words{"--name=", "--json"}),
              "orvx-announce: --name: the value is empty\n");
    EXPECT_THAT(refusal(good + Words{"--name", "a", "--proxy=", "--json"}),
                HasSubstr("--proxy: the value is empty"));
    EXPECT_THAT(refusal(good + Words{"--name", "a", "--health-command", ""}),
                HasSubstr("--health-command: the value is empty"));
    EXPECT_THAT(refusal(good + Words{"--proxy=a=", "--", "echo", "--name="}),
                Not(HasSubstr("the value is empty")));
}

TEST_F(TheOptions, ThatAreInvalidAreReportedInOneLineWithAHint) {
    const Words good{"--registry", "http://127.0.0.1", "--name", "a", "--port", "1"};
    const auto expect = [](const Words& arguments, const std::string& text) {
        const std::string told = refusal(arguments);
        EXPECT_THAT(told, HasSubstr(text));
        EXPECT_EQ(told.find('\n'), told.size() - 1) << told;
    };
    expect(good + Words{"./server", "--port", "2"},
           "the command stands after --, as in: orvx-announce ... -- ./server ...");
    expect(good + Words{"./server"}, "-- ./server ...");
    expect(good + Words{"--json", "true"}, "-- true ...");
    expect(good + Words{"--healht-tcp"}, "is --health-tcp meant?");
    expect(good + Words{"--check-intervall=5"}, "is --check-interval meant?");
    expect(good + Words{"--stop-timeout", "x"}, "--help");
}

TEST_F(TheOptions, TellTheVersionOfTheProgram) {
    EXPECT_THAT(Announce({"--version"}).ended(0).output,
                ::testing::MatchesRegex("orvx-announce [0-9]+\\.[0-9]+\\.[0-9]+\n"));
}

TEST_F(TheOptions, MayComeFromTheEnvironment) {
    const auto token = folder.write("token", "secret");
    passOnInFront();
    ChildProcess announce("/usr/bin/env", {"ORVX_REGISTRY=" + urlOf(front.port()), "ORVX_NAME=echo",
                                           "ORVX_PORT=8080", "ORVX_SERVICE_VERSION=1.2",
                                           "ORVX_HOST=10.0.0.9", "ORVX_TOKEN_FILE=" + token,
                                           paths::kAnnounceProgram, "--host", "10.0.0.7"});
    announce.awaitOutput(" announced ");
    EXPECT_EQ(front.requests().at(0).header("Authorization"), "Bearer secret");
    const json described = entries().at(0).at("service");
    EXPECT_EQ(described.at("versions"), json{"1.2"});
    EXPECT_EQ(described.at("host"), "10.0.0.7");
    announce.signal(SIGTERM);
    EXPECT_EQ(exitCode(announce.wait()), 0);
}

TEST_F(TheOptions, TakeTheRegistryAsSchemeHostAndPortOnly) {
    for (const char* url : {"", "host:1", "ftp://h", "http://", "http://h:0", "http://h:65536",
                            "http://h:1/path", "http://user@h", "http://h?q", "http://::1"}) {
        EXPECT_THAT(refusal({"--registry", url, "--name", "a", "--port", "1"}),
                    HasSubstr("--registry"))
            << url;
    }
}

TEST_F(TheOptions, RefuseAFileThatDescribesNoServices) {
    EXPECT_THAT(refusal({"--registry", "http://h", "--from", "/there/is/none"}),
                HasSubstr("/there/is/none"));
    for (const char* content :
         {"", "{}", "[]", "[1]", R"([{"port":1}])", R"([{"name":"a"}])",
          R"([{"name":"a","port":70000}])", R"([{"name":"a","port":"1"}])",
          R"([{"name":"","port":1}])", R"([{"name":"a","port":1,"uri":2}])"}) {
        EXPECT_THAT(refusalOfSet(content), HasSubstr("orvx-announce: ")) << content;
    }
}

TEST_F(TheOptions, RefuseAFileWithMoreThan100LevelsOnly) {
    const auto nested = [](std::size_t levels) {
        return R"([{"name":"a","uri":"/a","port":1,"properties":{"list":)" +
               std::string(levels - 3, '[') + std::string(levels - 3, ']') + "}}]";
    };
    EXPECT_THAT(refusalOfSet(nested(101)), HasSubstr("set:1:152: nested too deeply"));
    front.onRequest([](const Request& request) {
        return testing::response(request.method == "PUT" ? 201 : 200, {{"Location", "/a"}});
    });
    Announce announce(
        Words{"--registry", urlOf(front.port()), "--from", folder.write("set", nested(100))});
    announce.awaitOutput(" announced ");
    announce.stopped(0);
}

TEST_F(TheOptions, RefuseAFileWithTheLineAndColumnOfTheFault) {
    const std::map<std::string, std::string> faults{
        {"[\n {\"name\" \"a\"}]", "set:2:12: syntax error"},
        {"[{\"name\":\"a\"}", "set:1:"},
        {"[\n  {\"port\":1}]", "set:2:3: the service has no name"},
        {"[{\"name\":\"a\",\n\"port\":70000}]", "set:2:1: the service has no port from 1 to 65535"},
        {"[{\"name\":\"a\",\"port\":1,\"uri\":2}]",
         "set:1:23: the service has a uri that is no text"},
        {"[{\"name\":\"a\",\"port\":1,\"versions\":[1]}]", "set:1:23: the service has versions"},
        {"[{\"name\":\"a\",\"port\":1},\n{\"name\":\"a\",\"port\":1}]",
         "set:2:1: the service has the uri"},
        {"[{\"name\":\"a\",\"port\":1,\"name\":\"b\"}]", "set:1:23: \"name\" stands there twice"}};
    for (const auto& [content, fault] : faults) {
        EXPECT_THAT(refusalOfSet(content), HasSubstr(fault)) << content;
    }
}

TEST_F(TheOptions, RefuseAnUnknownKeyOfAFileWithTheNearestOne) {
    EXPECT_THAT(refusalOfSet("[{\"name\":\"a\",\n  \"prot\":1}]"),
                HasSubstr("set:2:3: unknown key \"prot\"; is \"port\" meant?"));
    EXPECT_THAT(refusalOfSet(R"([{"name":"a","port":1,"servicecategory":[]}])"),
                HasSubstr("is \"serviceCategories\" meant?"));
}

TEST_F(TheOptions, RefusePropertiesThatWouldBeKeysOfTheDescription) {
    EXPECT_THAT(refusalOfSet(R"([{"name":"a","port":1,"properties":{"host":"b"}}])"),
                HasSubstr("set:1:23: \"host\" cannot be one of \"properties\""));
    EXPECT_THAT(refusalOfSet(R"([{"name":"a","port":1,"properties":[]}])"),
                HasSubstr("set:1:23: \"properties\" is no object"));
}

TEST_F(TheOptions, RefuseTwoServicesThatWouldBeOneEntry) {
    EXPECT_THAT(refusalOfSet(R"([{"name":"a","port":1},{"name":"a","port":1}])"),
                HasSubstr("the uri of another one"));
    EXPECT_THAT(
        refusalOfSet(R"([{"name":"a","port":1,"uri":"/a"},{"name":"b","port":2,"uri":"/a"}])"),
        HasSubstr("the uri of another one"));
    EXPECT_THAT(
        refusalOfSet(R"([{"name":"a","port":1,"host":"h"},{"name":"b","port":2,"uri":"a/h:1"}])"),
        HasSubstr("the uri of another one"));
}

}  // namespace
}  // namespace orvx::announce
