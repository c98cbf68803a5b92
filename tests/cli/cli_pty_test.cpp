// kmio open and send over a pseudo-terminal: the tool opens the slave as a
// serial port, the test plays the device at the master.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "support/child_process.h"
#include "support/pty_pair.h"

namespace kmiotest {
namespace {

// The pty with its line made raw, so that bytes pass unchanged.
struct Pty : PtyPair {
    Pty() {
        termios raw{};
        ::tcgetattr(master.get(), &raw);
        ::cfmakeraw(&raw);
        ::tcsetattr(master.get(), TCSANOW, &raw);
    }
    void write(const std::string& bytes) {
        ASSERT_EQ(::write(master.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    // Reads at the master until `needle` arrived; returns everything read.
    std::string readUntil(const std::string& needle) {
        std::string got;
        auto deadline = std::chrono::steady_clock::now() + kPatience;
        while (got.find(needle) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
            pollfd fd{master.get(), POLLIN, 0};
            char buffer[4096];
            const ssize_t n = ::poll(&fd, 1, 100) == 1 ? ::read(master.get(), buffer, sizeof buffer) : 0;
            got.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        }
        return got;
    }
};

// Starts `kmio open` on the pty and proves the port is open by one byte
// round through the tool's stdin to the master.
std::unique_ptr<ChildProcess> openBridge(Pty& pty, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"open", pty.locator(), "-o", "baudrate 115200"};
    args.insert(args.end(), extra.begin(), extra.end());
    args.insert(args.begin(), KMIO_TOOL_PATH);
    auto child = std::make_unique<ChildProcess>(args);
    child->writeStdin("ping\n");
    EXPECT_EQ(pty.readUntil("ping\n"), "ping\n") << child->err();
    return child;
}

TEST(KmioCliPty, OpenBridgesStdinAndStdoutToThePort) {
    Pty pty;
    auto child = openBridge(pty);
    // A larger block in both directions, to see that nothing is lost or reordered.
    std::string block;
    for (int i = 0; i < 5000; ++i) {
        block += static_cast<char>('a' + i % 26);
    }
    child->writeStdin(block);
    EXPECT_EQ(pty.readUntil(block), block);
    pty.write(block + "END");
    EXPECT_TRUE(child->waitForStdout("END")) << child->err();
    EXPECT_EQ(child->out(), block + "END");
    child->closeStdin();
    EXPECT_EQ(child->wait(), 0) << child->err();
    EXPECT_EQ(child->err(), "");
}

TEST(KmioCliPty, OpenShowsHexDump) {
    Pty pty;
    auto child = openBridge(pty, {"--hex"});
    pty.write("AB\x01");
    EXPECT_TRUE(child->waitForStdout("|AB.|\n")) << child->out();
    EXPECT_EQ(child->out().rfind("00000000  41 42 01 ", 0), 0u) << child->out();
    child->closeStdin();
    EXPECT_EQ(child->wait(), 0);
}

TEST(KmioCliPty, LingerShowsRepliesAfterTheEndOfInput) {
    Pty pty;
    auto child = openBridge(pty, {"--linger", "3000"});
    child->writeStdin("last");
    child->closeStdin();
    EXPECT_EQ(pty.readUntil("last"), "last");
    pty.write("answer");
    EXPECT_EQ(child->wait(), 0) << child->err();
    EXPECT_EQ(child->out(), "answer");
}

TEST(KmioCliPty, HangUpIsReportedOnceAndEndsTheBridge) {
    Pty pty;
    auto child = openBridge(pty);
    pty.master.reset();
    EXPECT_EQ(child->wait(), 1);
    EXPECT_EQ(child->err(),
              "kmio: link error on " + pty.locator() + ": the link failed while receiving (8)\n");
}

TEST(KmioCliPty, InterruptClosesTheBridgeCleanly) {
    for (int signal : {SIGINT, SIGTERM}) {
        Pty pty;
        auto child = openBridge(pty);
        ASSERT_EQ(::kill(child->pid(), signal), 0);
        EXPECT_EQ(child->wait(), 0) << signal << ": " << child->err();
        EXPECT_EQ(child->err(), "");
    }
}

TEST(KmioCliPty, SendDecodesHexAndPrintsTheReply) {
    Pty pty;
    ChildProcess child({KMIO_TOOL_PATH, "send", pty.locator(), "68 69 0a", "--hex", "--wait", "3000", "-o",
                        "baudrate 115200"});
    child.closeStdin();
    EXPECT_EQ(pty.readUntil("hi\n"), "hi\n");
    pty.write("ok");
    EXPECT_EQ(child.wait(), 0) << child.err();
    EXPECT_EQ(child.out(), "00000000  6f 6b" + std::string(14 * 3, ' ') + "  |ok|\n");
}

}  // namespace
}  // namespace kmiotest
