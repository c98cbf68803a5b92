#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "netns/child_process.h"
#include "platform/unique_fd.h"

namespace kmiotest {

// Two separate networks to test discovery on: a host namespace with two veth
// interfaces, each leading to a device namespace of its own.
//
//   host ns:   kmhost1 10.77.1.1/24        kmhost2 10.77.2.1/24
//                 |                           |
//   device ns: kmdev 10.77.1.2/24          kmdev 10.77.2.2/24
//
// The names carry the test process's pid, so parallel tests do not collide,
// and the addresses exist only inside these namespaces. The destructor stops
// the programs started through it and deletes the namespaces.
class NetnsFixture {
public:
    static constexpr int kDevices = 2;

    // Throws std::runtime_error with the failing command and its output.
    NetnsFixture();
    NetnsFixture(const NetnsFixture&) = delete;
    NetnsFixture& operator=(const NetnsFixture&) = delete;
    ~NetnsFixture();

    const std::string& hostNamespace() const { return host_; }
    const std::string& deviceNamespace(int i) const { return devices_.at(static_cast<std::size_t>(i)); }

    // Host order; i is 0 or 1.
    static std::uint32_t hostAddress(int i) { return 0x0A4D0001u + (static_cast<std::uint32_t>(i + 1) << 8); }
    static std::uint32_t deviceAddress(int i) { return hostAddress(i) + 1; }
    static std::string hostInterface(int i) { return "kmhost" + std::to_string(i + 1); }

    // Runs argv inside a namespace; the fixture owns and finally stops it.
    ChildProcess& startIn(const std::string& ns, const std::vector<std::string>& argv);

    // Starts kmio-sim on device namespace i's address and waits for it to be
    // ready. Throws std::runtime_error with its output when it is not.
    ChildProcess& startSimulator(int i, const std::vector<std::string>& arguments);

private:
    void ip(const std::vector<std::string>& arguments);

    std::string host_;
    std::vector<std::string> devices_;
    std::vector<std::string> created_;
    std::vector<std::unique_ptr<ChildProcess>> children_;
};

// Moves the calling thread into a namespace for the object's lifetime.
// Sockets, and threads started meanwhile, stay in that namespace.
class ScopedNetns {
public:
    explicit ScopedNetns(const std::string& name);
    ScopedNetns(const ScopedNetns&) = delete;
    ScopedNetns& operator=(const ScopedNetns&) = delete;
    ~ScopedNetns();

private:
    kmio::UniqueFd original_;
};

// Base of the namespace tests: builds the fixture in SetUp, or skips when
// namespaces cannot be made here (fails instead under KMIO_REQUIRE_NETNS=1).
class NetnsTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { netns_.reset(); }

    std::unique_ptr<NetnsFixture> netns_;
};

}  // namespace kmiotest
