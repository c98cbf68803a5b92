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

std::string prefix(const std::string& address, int bits) {
    return address + "/" + std::to_string(bits);
}

}  // namespace

NetnsFixture::NetnsFixture() {
    const std::string base = "kmio-" + std::to_string(::getpid()) + "-" + std::to_string(++fixtureNumber);
    host_ = base + "-host";
    devices_ = {base + "-dev1", base + "-dev2"};
    try {
        for (const std::string& ns : {host_, devices_[0], devices_[1]}) {
            // A namespace of this name can only be left over from a crashed
            // process that had our pid; it is ours to replace.
            runProgram({"ip", "netns", "del", ns});
            ip({"netns", "add", ns});
            created_.push_back(ns);
            ip({"-n", ns, "link", "set", "lo", "up"});
        }
        for (int i = 0; i < kDevices; ++i) {
            const std::string& device = deviceNamespace(i);
            ip({"-n", host_, "link", "add", hostInterface(i), "type", "veth", "peer", "name", "kmdev",
                "netns", device});
            ip({"-n", host_, "addr", "add", prefix(kmio::formatIpv4(hostAddress(i)), 24), "dev",
                hostInterface(i)});
            ip({"-n", device, "addr", "add", prefix(kmio::formatIpv4(deviceAddress(i)), 24), "dev", "kmdev"});
            ip({"-n", host_, "link", "set", hostInterface(i), "up"});
            ip({"-n", device, "link", "set", "kmdev", "up"});
        }
    } catch (...) {
        for (const std::string& ns : created_) {
            runProgram({"ip", "netns", "del", ns});
        }
        throw;
    }
}

NetnsFixture::~NetnsFixture() {
    // The programs first: a namespace lives on while a process is inside it.
    children_.clear();
    for (const std::string& ns : created_) {
        runProgram({"ip", "netns", "del", ns});
    }
}

void NetnsFixture::ip(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{"ip"};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    std::string output;
    if (runProgram(argv, &output) != 0) {
        std::string command;
        for (const std::string& arg : argv) {
            command += (command.empty() ? "" : " ") + arg;
        }
        throw std::runtime_error("'" + command + "' failed: " + output);
    }
}

ChildProcess& NetnsFixture::startIn(const std::string& ns, const std::vector<std::string>& argv) {
    std::vector<std::string> command{"ip", "netns", "exec", ns};
    command.insert(command.end(), argv.begin(), argv.end());
    return *children_.emplace_back(std::make_unique<ChildProcess>(command));
}

ChildProcess& NetnsFixture::startSimulator(int i, const std::vector<std::string>& arguments) {
    std::vector<std::string> argv{KMIO_SIM_PATH, "--iface", kmio::formatIpv4(deviceAddress(i))};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    ChildProcess& simulator = startIn(deviceNamespace(i), argv);
    if (!simulator.waitForLine("ready", std::chrono::seconds(10))) {
        throw std::runtime_error("kmio-sim did not start: " + simulator.output());
    }
    return simulator;
}

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
        netns_ = std::make_unique<NetnsFixture>();
    } catch (const std::exception& error) {
        const char* require = std::getenv("KMIO_REQUIRE_NETNS");
        if (require != nullptr && std::string(require) == "1") {
            FAIL() << "KMIO_REQUIRE_NETNS=1 but network namespaces cannot be made: " << error.what();
        }
        GTEST_SKIP() << "network namespaces cannot be made here (needs root and iproute2): " << error.what();
    }
}

}  // namespace kmiotest
