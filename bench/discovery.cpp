// Discovery benchmark: kmio-sim with 1000 devices (no TCP) on 127.0.0.1, then
// DeviceFilter discovery passes over a Host on 127.0.0.1 with the default
// 100 ms timeout.
//
// Prints, per pass, the devices found out of 1000, the pass time and when the
// last reply arrived. Target: all 1000 in the first pass, the pass within the
// timeout plus 20 ms. Exits 1 when a pass misses a device.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#include "discovery/device_filter.h"
#include "discovery/host.h"
#include "platform/steady_clock.h"

extern char** environ;

namespace {

constexpr unsigned kDevices = 1000;
constexpr int kTimeoutMs = 100;  // the discovery-timeout default
constexpr int kPasses = 5;
constexpr std::uint32_t kLoopback = 0x7F000001;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "discovery bench: %s\n", what.c_str());
    std::exit(1);
}

// The simulator as a child process whose output we read through a pipe.
class Simulator {
public:
    Simulator() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            fail("pipe2 failed");
        }
        output_ = fds[0];
        const std::string count = std::to_string(kDevices);
        const char* argv[] = {KMIO_SIM_PATH, "--iface",         "127.0.0.1", "--count", count.c_str(),
                              "--no-tcp",    "--serial-prefix", "BENCH",     nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
        const int error =
            posix_spawn(&pid_, argv[0], &actions, nullptr, const_cast<char* const*>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(fds[1]);
        if (error != 0) {
            fail(std::string("cannot start ") + KMIO_SIM_PATH);
        }
    }

    // Reads output until the simulator says it is ready, then keeps draining
    // it on a thread so that its event lines never block it, counting the
    // requests it answered.
    void waitReady() {
        std::string text;
        char buffer[4096];
        while (text.find("\nready") == std::string::npos) {
            pollfd p{output_, POLLIN, 0};
            const ssize_t got = ::poll(&p, 1, 30000) == 1 ? ::read(output_, buffer, sizeof buffer) : 0;
            if (got <= 0) {
                fail("kmio-sim did not get ready:\n" + text);
            }
            text.append(buffer, static_cast<std::size_t>(got));
        }
        drain_ = std::thread([this] {
            char sink[4096];
            std::string line;
            ssize_t got = 0;
            while ((got = ::read(output_, sink, sizeof sink)) > 0) {
                for (const char c : std::string_view(sink, static_cast<std::size_t>(got))) {
                    if (c != '\n') {
                        line += c;
                        continue;
                    }
                    if (line.starts_with("answered request")) {
                        ++answered_;
                    }
                    line.clear();
                }
            }
        });
    }

    // Requests the simulator has answered so far (its "answered request" lines).
    int answered() const { return answered_; }

    // Stops the simulator by its pid and returns its exit status.
    int stop() {
        ::kill(pid_, SIGTERM);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        if (drain_.joinable()) {
            drain_.join();
        }
        ::close(output_);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t pid_ = -1;
    int output_ = -1;
    std::thread drain_;
    std::atomic<int> answered_{0};
};

double millis(std::int64_t ns) {
    return static_cast<double>(ns) / 1e6;
}

}  // namespace

int main() {
    Simulator simulator;
    simulator.waitReady();

    // Started after the simulator's start-up informs, so that only replies count.
    const auto host = std::make_shared<kalometnd::Host>();
    host->start({kLoopback});
    std::atomic<std::int64_t> lastHeard{0};
    kalometnd::DeviceFilter filter(host, {}, {});
    const auto listener = host->addListener([&](const kalometnd::DiscoverInfo& info) {
        if (info.isReply) {
            lastHeard = std::max(lastHeard.load(), info.timestamp);
        }
        return true;
    });

    std::printf("discovery of %u simulated devices on 127.0.0.1, timeout %d ms\n", kDevices, kTimeoutMs);
    bool allFound = true;
    for (int pass = 1; pass <= kPasses; ++pass) {
        lastHeard = 0;
        const std::int64_t start = kmio::steadyNowNs();
        filter.discover(kTimeoutMs, "");
        const std::int64_t end = kmio::steadyNowNs();
        const auto devices = filter.devices();
        const auto found = std::count_if(devices.begin(), devices.end(),
                                         [](const auto& d) { return d.serialNumber.starts_with("BENCH"); });
        allFound = allFound && found == kDevices;
        std::printf(
            "pass %d: %ld of %u devices found, pass time %.1f ms (target <= %d ms), last reply after %.1f "
            "ms\n",
            pass, static_cast<long>(found), kDevices, millis(end - start), kTimeoutMs + 20,
            lastHeard.load() != 0 ? millis(lastHeard.load() - start) : 0.0);
    }

    host->removeListener(listener);
    host->stop();
    const int simulatorExit = simulator.stop();
    // More answered requests than passes means some other host on loopback
    // asked too; a pass that found nothing while answered means its replies
    // went to another socket bound to the discovery port after ours.
    std::printf("kmio-sim answered %d requests\n", simulator.answered());
    if (simulatorExit != 0) {
        std::printf("kmio-sim exited with %d\n", simulatorExit);
    }
    return allFound && simulatorExit == 0 ? 0 : 1;
}
