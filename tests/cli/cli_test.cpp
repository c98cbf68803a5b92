// The kmio tool's command line: versions, help, usage errors, failures that
// name the library's result code, and the listings.
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "support/child_process.h"
#include "support/tcp_peer.h"

namespace kmiotest {
namespace {

std::vector<std::string> kmio(std::vector<std::string> args) {
    args.insert(args.begin(), KMIO_TOOL_PATH);
    return args;
}

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

TEST(KmioCli, VersionNamesToolAndLibrary) {
    const RunResult r = run(kmio({"version"}));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "kmio 2.2.0 (library 2.2.0)\n");
}

TEST(KmioCli, EveryCommandHasHelp) {
    const RunResult overview = run(kmio({"help"}));
    ASSERT_EQ(overview.status, 0);
    for (const char* name : {"version", "list", "interfaces", "open", "send", "watch"}) {
        EXPECT_NE(overview.out.find(std::string("  ") + name + " "), std::string::npos) << name;
        for (const auto& args :
             {std::vector<std::string>{name, "--help"}, std::vector<std::string>{"help", name}}) {
            const RunResult r = run(kmio(args));
            EXPECT_EQ(r.status, 0) << name;
            EXPECT_EQ(r.out.rfind(std::string("Usage: kmio ") + name, 0), 0u) << r.out;
        }
    }
}

// Usage errors exit with 2 and say something on stderr; failures of the
// library exit with 1 and name its result code.
TEST(KmioCli, UsageErrorsAndFailuresExitWithTheirStatus) {
    const struct {
        std::vector<std::string> args;
        int status;
        std::string message;  // "" for any
    } cases[] = {
        {{}, 2, ""},
        {{"frobnicate"}, 2, ""},
        {{"help", "frobnicate"}, 2, ""},
        {{"version", "extra"}, 2, ""},
        {{"list", "--type", "wifi"}, 2, ""},
        {{"list", "--type"}, 2, ""},
        {{"list", "--no-such-option"}, 2, ""},
        {{"interfaces", "--type", "usb"}, 2, ""},
        {{"open"}, 2, ""},
        {{"open", "serial:/dev/ttyS0", "serial:/dev/ttyS1"}, 2, ""},
        {{"send", "serial:/dev/ttyS0"}, 2, ""},
        {{"send", "serial:/dev/ttyS0", "x", "--wait", "soon"}, 2, ""},
        {{"send", "serial:/dev/ttyS0", "4g", "--hex"}, 2, ""},
        {{"send", "serial:/dev/ttyS0", "414", "--hex"}, 2, ""},
        {{"watch", "--format", "ip"}, 2, ""},
        {{"version", "--raw=1"}, 2, ""},
        {{"open", "bogus:thing"}, 1, "kmio: cannot open bogus:thing: the locator is not usable (2)\n"},
        {{"send", "nocolon", "x"}, 1, "kmio: cannot open nocolon: the locator is not usable (2)\n"},
        {{"open", "serial:/dev/kmio-cli-no-such-port", "-o", "baudrate 115200"},
         1,
         "kmio: cannot open serial:/dev/kmio-cli-no-such-port: the link could not be opened (5)\n"},
        {{"list", "--type", "serial", "-o", "strict", "-o", "no-such-key 1"},
         1,
         "kmio: cannot list devices: bad option string (4)\n"},
        {{"list", "--iface", "not-an-address"}, 1, "kmio: cannot list devices: bad option string (4)\n"},
    };
    for (const auto& c : cases) {
        const RunResult r = run(kmio(c.args));
        const std::string shown =
            c.args.empty() ? "(none)" : c.args[0] + (c.args.size() > 1 ? " " + c.args[1] : "");
        EXPECT_EQ(r.status, c.status) << shown;
        EXPECT_TRUE(r.out.empty()) << shown << ": " << r.out;
        EXPECT_FALSE(r.err.empty()) << shown;
        if (!c.message.empty()) {
            EXPECT_EQ(r.err, c.message);
        }
    }
}

// The network link reports a lost link on every pass after the peer closed;
// the tool must say so once and end instead of flooding stderr.
TEST(KmioCli, PeerCloseIsReportedOnceAndEndsTheBridge) {
    std::uint16_t port = 0;
    kmio::UniqueFd listener = kmiotest::loopbackSocket(1, port);
    const std::string locator = "network:127.0.0.1:" + std::to_string(port);
    ChildProcess child(kmio({"open", locator}));
    kmio::UniqueFd peer(::accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(peer);
    ASSERT_EQ(::write(peer.get(), "bye\n", 4), 4);
    EXPECT_TRUE(child.waitForStdout("bye\n"));
    peer.reset();
    EXPECT_EQ(child.wait(), 1);
    EXPECT_EQ(child.out(), "bye\n");
    EXPECT_EQ(child.err(), "kmio: link error on " + locator + ": the link was lost (7)\n");
}

// The table and the raw text come from the same listing: every raw record
// shows up, value by value, as a row under the header.
TEST(KmioCli, SerialListingsShowTheRawRecordsAsTableRows) {
    for (const std::string command : {"list", "interfaces"}) {
        SCOPED_TRACE(command);
        const RunResult raw = run(kmio({command, "--type", "serial", "--raw"}));
        const RunResult table = run(kmio({command, "--type", "serial"}));
        ASSERT_EQ(raw.status, 0) << raw.err;
        ASSERT_EQ(table.status, 0) << table.err;
        EXPECT_EQ(raw.err + table.err, "");
        const auto records = lines(raw.out);
        const auto rows = lines(table.out);
        if (records.empty()) {
            EXPECT_EQ(table.out, command == "list" ? "(no devices found)\n" : "(no interfaces found)\n");
            continue;
        }
        ASSERT_EQ(rows.size(), records.size() + 1) << table.out;
        EXPECT_EQ(rows[0].rfind("iface-type", 0), 0u) << rows[0];
        for (std::size_t i = 0; i < records.size(); ++i) {
            EXPECT_EQ(records[i].rfind("iface-type=serial|", 0), 0u) << records[i];
            std::istringstream fields(records[i]);
            for (std::string field; std::getline(fields, field, '|');) {
                EXPECT_NE(rows[i + 1].find(field.substr(field.find('=') + 1)), std::string::npos)
                    << rows[i + 1];
            }
        }
    }
}

}  // namespace
}  // namespace kmiotest
