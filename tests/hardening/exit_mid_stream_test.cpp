// A host program that ends with a device open and data arriving must end
// normally, on every link. The program is tests/hardening/exit_mid_stream.c;
// it takes the locator, so each link only has to supply an echoing peer.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/echoing_pty.h"
#include "support/tcp_peer.h"

namespace kmiotest {
namespace {

// Sets an environment variable's value (appended to what it held) for the
// object's lifetime, for the programs it starts.
class ScopedEnvironment {
public:
    ScopedEnvironment(const char* name, const std::string& value, bool active) : name_(name) {
        const char* old = std::getenv(name);
        had_ = old != nullptr;
        old_ = had_ ? old : "";
        if (active) {
            ::setenv(name, (old_.empty() ? value : old_ + ":" + value).c_str(), 1);
        }
    }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;
    ~ScopedEnvironment() {
        if (had_) {
            ::setenv(name_, old_.c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

private:
    const char* name_;
    bool had_ = false;
    std::string old_;
};

// The program ends two ways: returning from main with its threads running,
// and also with its receiving thread ended by the host's runtime at exit.
constexpr bool kEndCallbackThreads[] = {false, true};

void expectNormalExit(const std::string& locator, const std::string& options, bool endCallbackThreads) {
    std::vector<std::string> argv{KMIO_EXIT_MID_STREAM_PATH, locator, options};
    if (endCallbackThreads) {
        argv.push_back("end-callback-threads");
    }
    // A receiving thread ended by the program is never joined, since the
    // program never closes its device: ThreadSanitizer would call that a
    // thread leak and change the exit status that this test checks.
    const ScopedEnvironment noThreadLeakReports("TSAN_OPTIONS", "report_thread_leaks=0", endCallbackThreads);
    const RunResult result = kmiotest::run(argv);
    EXPECT_EQ(result.status, 0) << locator << (endCallbackThreads ? ", ending callback threads: " : ": ")
                                << result.err;
    EXPECT_EQ(result.out, "streaming\n") << locator;
}

TEST(ExitMidStream, NetworkDeviceReceiving) {
    const kmiotest::TcpPeer peer;
    for (const bool endCallbackThreads : kEndCallbackThreads) {
        expectNormalExit("network:127.0.0.1:" + std::to_string(peer.port()), "", endCallbackThreads);
    }
}

TEST(ExitMidStream, SerialDeviceReceiving) {
    // A terminal per run: the program ends holding its port exclusively.
    for (const bool endCallbackThreads : kEndCallbackThreads) {
        const EchoingPty pty;
        expectNormalExit(pty.locator(), "baudrate 115200", endCallbackThreads);
    }
}

}  // namespace
}  // namespace kmiotest
