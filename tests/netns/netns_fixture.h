#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/unique_fd.h"
#include "support/child_process.h"

namespace kmiotest {

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

// Base of the tests that need two separate networks: a host namespace with
// two veth interfaces, each leading to a device namespace of its own.
//
//   host ns:   kmhost1 10.77.1.1/24        kmhost2 10.77.2.1/24
//                 |                           |
//   device ns: kmdev 10.77.1.2/24          kmdev 10.77.2.2/24
//
// The names carry the test process's pid, so parallel tests do not collide,
// and the addresses exist only inside these namespaces. SetUp skips when
// namespaces cannot be made here (fails instead under KMIO_REQUIRE_NETNS=1);
// TearDown stops the simulators and deletes the namespaces.
class NetnsTest : public ::testing::Test {
public:
    static constexpr int kDevices = 2;

    // Host order; i is 0 or 1.
    static std::uint32_t hostAddress(int i) { return 0x0A4D0001u + (static_cast<std::uint32_t>(i + 1) << 8); }
    static std::uint32_t deviceAddress(int i) { return hostAddress(i) + 1; }
    static std::string hostInterface(int i) { return "kmhost" + std::to_string(i + 1); }

protected:
    void SetUp() override;
    void TearDown() override;

    // Starts kmio-sim on device namespace i's address and waits for it to be
    // ready. Throws std::runtime_error with its output when it is not.
    void startSimulator(int i, const std::vector<std::string>& arguments);

    std::string host_;  // the host namespace

private:
    void build();
    void removeNamespaces();

    std::vector<std::string> devices_;
    std::vector<std::string> created_;
    std::vector<std::unique_ptr<ChildProcess>> simulators_;
};

}  // namespace kmiotest
