// A host program that ends with a device open and data arriving must end
// normally, on every link. The program is tests/hardening/exit_mid_stream.c;
// it takes the locator, so each link only has to supply an echoing peer. For
// USB that peer is a simulated chip that echoes, from the sample chip file
// the child's simulator reads, found by the driver's own name on the child's
// library search path.

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "support/child_process.h"
#include "support/echoing_pty.h"
#include "support/tcp_peer.h"

namespace kmiotest {
namespace {

// NAME=VALUE for env(1), with the value after what the variable holds
// already (a search path, or a sanitizer's option list).
std::string appended(const char* name, const std::string& value) {
    const char* old = std::getenv(name);
    return std::string(name) + "=" + (old != nullptr && *old != '\0' ? std::string(old) + ":" : "") + value;
}

// The program ends two ways: returning from main with its threads running,
// and also with its receiving thread ended by the host's runtime at exit.
constexpr bool kEndCallbackThreads[] = {false, true};

void expectNormalExit(bool endCallbackThreads, const std::string& locator, const std::string& options,
                      const std::vector<std::string>& environment = {}) {
    std::vector<std::string> argv{"env"};
    argv.insert(argv.end(), environment.begin(), environment.end());
    if (endCallbackThreads) {
        // A receiving thread ended by the program is never joined, since the
        // program never closes its device: ThreadSanitizer would call that a
        // thread leak and change the exit status that this test checks.
        argv.push_back(appended("TSAN_OPTIONS", "report_thread_leaks=0"));
    }
    argv.insert(argv.end(), {KMIO_EXIT_MID_STREAM_PATH, locator, options});
    if (endCallbackThreads) {
        argv.push_back("end-callback-threads");
    }
    const RunResult result = kmiotest::run(argv);
    EXPECT_EQ(result.status, 0) << locator << (endCallbackThreads ? ", ending callback threads: " : ": ")
                                << result.err;
    EXPECT_EQ(result.out, "streaming\n") << locator;
}

TEST(ExitMidStream, NetworkDeviceReceiving) {
    const kmiotest::TcpPeer peer;
    for (const bool endCallbackThreads : kEndCallbackThreads) {
        expectNormalExit(endCallbackThreads, "network:127.0.0.1:" + std::to_string(peer.port()), "");
    }
}

TEST(ExitMidStream, SerialDeviceReceiving) {
    // A terminal per run: the program ends holding its port exclusively.
    for (const bool endCallbackThreads : kEndCallbackThreads) {
        const EchoingPty pty;
        expectNormalExit(endCallbackThreads, pty.locator(), "baudrate 115200");
    }
}

TEST(ExitMidStream, UsbDeviceReceiving) {
    // KM000002 has a product name with a link profile of its own, so the
    // chip opens as it is; it echoes what the program sends.
    for (const bool endCallbackThreads : kEndCallbackThreads) {
        expectNormalExit(endCallbackThreads, "usb:sn:KM000002", "",
                         {"FTDISIM_CONFIG=" KMIO_SOURCE_DIR "/tests/ftdi_sim/chips.txt",
                          appended("LD_LIBRARY_PATH", KMIO_FTDI_SIM_DIR)});
    }
}

}  // namespace
}  // namespace kmiotest
