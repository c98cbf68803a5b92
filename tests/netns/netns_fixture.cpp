#include "netns/netns_fixture.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "options/locator.h"

namespace kmiotest {

namespace {

int fixtureNumber = 0;

void ip(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "ip");
    const RunResult result = run(arguments);
    if (result.status != 0) {
        std::string command;
        for (const std::string& arg : arguments) {
            command += arg + " ";
        }
        throw std::runtime_error("'" + command + "' failed: " + result.out + result.err);
    }
}

std::string withMask(std::uint32_t address) {
    return kmio::formatIpv4(address) + "/24";
}

}  // namespace

ScopedNetns::ScopedNetns(const std::string& name) {
    original_.reset(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    const kmio::UniqueFd target(::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    if (!original_ || !target || ::setns(target.get(), CLONE_NEWNET) != 0) {
        throw std::runtime_error("Could not enter namespace " + name + ": " + std::strerror(errno));
    }
}

ScopedNetns::~ScopedNetns() {
    ::setns(original_.get(), CLONE_NEWNET);
}

void NetnsTest::SetUp() {
    try {
        build();
    } catch (const std::exception& error) {
        removeNamespaces();
        const char* require = std::getenv("KMIO_REQUIRE_NETNS");
        if (require != nullptr && std::string(require) == "1") {
            FAIL() << "KMIO_REQUIRE_NETNS=1 but network namespaces cannot be made: " << error.what();
        }
        GTEST_SKIP() << "network namespaces cannot be made here (needs root and iproute2): " << error.what();
    }
}

void NetnsTest::build() {
    const std::string base = "kmio-" + std::to_string(::getpid()) + "-" + std::to_string(++fixtureNumber);
    host_ = base + "-host";
    devices_ = {base + "-dev1", base + "-dev2"};
    for (const std::string& ns : {host_, devices_[0], devices_[1]}) {
        // A namespace of this name can only be left over from a crashed
        // process that had our pid; it is ours to replace.
        run({"ip", "netns", "del", ns});
        ip({"netns", "add", ns});
        created_.push_back(ns);
        ip({"-n", ns, "link", "set", "lo", "up"});
    }
    for (int i = 0; i < kDevices; ++i) {
        const std::string& device = devices_[static_cast<std::size_t>(i)];
        ip({"-n", host_, "link", "add", hostInterface(i), "type", "veth", "peer", "name", "kmdev", "netns",
            device});
        ip({"-n", host_, "addr", "add", withMask(hostAddress(i)), "dev", hostInterface(i)});
        ip({"-n", device, "addr", "add", withMask(deviceAddress(i)), "dev", "kmdev"});
        ip({"-n", host_, "link", "set", hostInterface(i), "up"});
        ip({"-n", device, "link", "set", "kmdev", "up"});
    }
}

void NetnsTest::TearDown() {
    // The programs first: a namespace lives on while a process is inside it.
    simulators_.clear();
    removeNamespaces();
}

void NetnsTest::removeNamespaces() {
    for (const std::string& ns : created_) {
        run({"ip", "netns", "del", ns});
    }
    created_.clear();
}

void NetnsTest::startSimulator(int i, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{"ip",
                                  "netns",
                                  "exec",
                                  devices_.at(static_cast<std::size_t>(i)),
                                  KMIO_SIM_PATH,
                                  "--iface",
                                  kmio::formatIpv4(deviceAddress(i))};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ChildProcess& simulator = *simulators_.emplace_back(std::make_unique<ChildProcess>(argv));
    if (!simulator.waitForLine("ready", std::chrono::seconds(10))) {
        throw std::runtime_error("kmio-sim did not start: " + simulator.out() + simulator.err());
    }
}

}  // namespace kmiotest
