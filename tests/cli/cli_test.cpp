// The kmio tool's command line: versions, help, usage errors, failures that
// name the library's result code, and the listings.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>

#include "child_process.h"

namespace kmio::clitest {
namespace {

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

TEST(KmioCli, VersionNamesToolAndLibrary) {
    RunResult r = runKmio({"version"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "kmio 2.2.0 (library 2.2.0)\n");
}

TEST(KmioCli, EveryCommandHasHelp) {
    RunResult overview = runKmio({"help"});
    ASSERT_EQ(overview.status, 0);
    for (const char* name : {"version", "list", "interfaces", "open", "send", "watch"}) {
        EXPECT_NE(overview.out.find(std::string("  ") + name + " "), std::string::npos) << name;
        for (const auto& args :
             {std::vector<std::string>{name, "--help"}, std::vector<std::string>{"help", name}}) {
            RunResult r = runKmio(args);
            EXPECT_EQ(r.status, 0) << name;
            EXPECT_EQ(r.out.rfind(std::string("Usage: kmio ") + name, 0), 0u) << r.out;
        }
    }
}

TEST(KmioCli, UsageErrorsExitWithTwo) {
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"frobnicate"},
        {"help", "frobnicate"},
        {"version", "extra"},
        {"list", "--type", "wifi"},
        {"list", "--type"},
        {"list", "--no-such-option"},
        {"interfaces", "--type", "usb"},
        {"open"},
        {"open", "serial:/dev/ttyS0", "serial:/dev/ttyS1"},
        {"send", "serial:/dev/ttyS0"},
        {"send", "serial:/dev/ttyS0", "x", "--wait", "soon"},
        {"send", "serial:/dev/ttyS0", "4g", "--hex"},
        {"send", "serial:/dev/ttyS0", "414", "--hex"},
        {"watch", "--format", "ip"},
        {"version", "--raw=1"},
    };
    for (const auto& args : cases) {
        RunResult r = runKmio(args);
        std::string shown = args.empty() ? "(none)" : args[0] + " ...";
        EXPECT_EQ(r.status, 2) << shown;
        EXPECT_TRUE(r.out.empty()) << shown << ": " << r.out;
        EXPECT_FALSE(r.err.empty()) << shown;
    }
}

TEST(KmioCli, FailuresNameTheResultCode) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{"open", "bogus:thing"}, "kmio: cannot open bogus:thing: the locator is not usable (2)\n"},
        {{"send", "nocolon", "x"}, "kmio: cannot open nocolon: the locator is not usable (2)\n"},
        {{"open", "serial:/dev/kmio-cli-no-such-port", "-o", "baudrate 115200"},
         "kmio: cannot open serial:/dev/kmio-cli-no-such-port: the link could not be opened (5)\n"},
        {{"list", "--type", "serial", "-o", "strict", "-o", "no-such-key 1"},
         "kmio: cannot list devices: bad option string (4)\n"},
        {{"list", "--iface", "not-an-address"}, "kmio: cannot list devices: bad option string (4)\n"},
    };
    for (const auto& c : cases) {
        RunResult r = runKmio(c.args);
        EXPECT_EQ(r.status, 1) << c.message;
        EXPECT_EQ(r.err, c.message);
    }
}

// The network link reports a lost link on every pass after the peer closed;
// the tool must say so once and end instead of flooding stderr.
TEST(KmioCli, PeerCloseIsReportedOnceAndEndsTheBridge) {
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
    std::string locator = "network:127.0.0.1:" + std::to_string(ntohs(address.sin_port));

    ChildProcess child({"open", locator});
    int peer = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    ASSERT_GE(peer, 0);
    ASSERT_EQ(::write(peer, "bye\n", 4), 4);
    EXPECT_TRUE(child.waitForStdout("bye\n"));
    ::close(peer);
    EXPECT_EQ(child.wait(), 1);
    EXPECT_EQ(child.out(), "bye\n");
    EXPECT_EQ(child.err(), "kmio: link error on " + locator + ": the link was lost (7)\n");
}

// The table and the raw text come from the same listing, so every record of
// the raw form must show up as a row with the same locator.
TEST(KmioCli, SerialListingTableMatchesRawText) {
    RunResult raw = runKmio({"list", "--type", "serial", "--raw"});
    RunResult table = runKmio({"list", "--type", "serial"});
    ASSERT_EQ(raw.status, 0) << raw.err;
    ASSERT_EQ(table.status, 0) << table.err;
    EXPECT_TRUE(raw.err.empty() && table.err.empty());
    auto rawLines = lines(raw.out);
    if (rawLines.empty()) {
        EXPECT_EQ(table.out, "(no devices found)\n");
        return;
    }
    auto rows = lines(table.out);
    ASSERT_EQ(rows.size(), rawLines.size() + 1);
    EXPECT_EQ(rows[0].rfind("iface-type", 0), 0u) << rows[0];
    for (std::size_t i = 0; i < rawLines.size(); ++i) {
        auto at = rawLines[i].find("locator=");
        ASSERT_NE(at, std::string::npos) << rawLines[i];
        std::string locator = rawLines[i].substr(at + 8, rawLines[i].find('|', at) - at - 8);
        EXPECT_NE(rows[i + 1].find(locator), std::string::npos) << rows[i + 1];
    }
}

TEST(KmioCli, SerialInterfacesListEveryPortWithItsName) {
    RunResult raw = runKmio({"interfaces", "--type", "serial", "--raw"});
    RunResult table = runKmio({"interfaces", "--type", "serial"});
    ASSERT_EQ(raw.status, 0) << raw.err;
    ASSERT_EQ(table.status, 0) << table.err;
    for (const auto& line : lines(raw.out)) {
        EXPECT_EQ(line.rfind("iface-type=serial|", 0), 0u) << line;
    }
    EXPECT_EQ(lines(table.out).size(), raw.out.empty() ? 1u : lines(raw.out).size() + 1);
}

}  // namespace
}  // namespace kmio::clitest
