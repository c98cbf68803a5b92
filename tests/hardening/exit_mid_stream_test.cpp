// A host program that ends with a device open and data arriving must end
// normally, on every link. The program is tests/hardening/exit_mid_stream.c;
// it takes the locator, so each link only has to supply an echoing peer. For
// USB that peer is a simulated chip that echoes, described in a chip file
// the child's simulator reads, and found by the driver's own name on the
// child's library search path.

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/echoing_pty.h"
#include "support/tcp_peer.h"

namespace kmiotest {
namespace {

// Sets an environment variable's value (by default appended to what it
// held, as a search path) for the object's lifetime, for the programs it
// starts.
class ScopedEnvironment {
public:
    enum class Mode { Append, Replace };

    ScopedEnvironment(const char* name, const std::string& value, bool active, Mode mode = Mode::Append)
        : name_(name) {
        const char* old = std::getenv(name);
        had_ = old != nullptr;
        old_ = had_ ? old : "";
        if (active) {
            const bool append = mode == Mode::Append && !old_.empty();
            ::setenv(name, (append ? old_ + ":" + value : value).c_str(), 1);
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

// A file holding the given text, removed with the object.
class TextFile {
public:
    explicit TextFile(const std::string& text) {
        char name[] = "/tmp/kmio-exit-chips-XXXXXX";
        const int fd = ::mkstemp(name);
        if (fd < 0) {
            throw std::runtime_error("mkstemp failed");
        }
        ::close(fd);
        path_ = name;
        std::ofstream(path_) << text;
    }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;
    ~TextFile() { ::unlink(path_.c_str()); }
    const std::string& path() const { return path_; }

private:
    std::string path_;
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

TEST(ExitMidStream, UsbDeviceReceiving) {
    // A product name with a link profile of its own, so the chip opens as
    // it is; it echoes what the program sends.
    const TextFile chips("serial=KMEXIT01 description=\"Kalomet DRV-I\" echo=1\n");
    const ScopedEnvironment chipFile("FTDISIM_CONFIG", chips.path(), true, ScopedEnvironment::Mode::Replace);
    const ScopedEnvironment driverPath("LD_LIBRARY_PATH", KMIO_FTDI_SIM_DIR, true);
    for (const bool endCallbackThreads : kEndCallbackThreads) {
        expectNormalExit("usb:sn:KMEXIT01", "", endCallbackThreads);
    }
}

}  // namespace
}  // namespace kmiotest
