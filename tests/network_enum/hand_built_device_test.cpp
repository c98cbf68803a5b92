// A network device written in the test from the datagram layout alone, with
// none of the library's packet code: the library must find it on loopback,
// open it by serial number, exchange bytes with it, and raise events when it
// appears and when it stops answering.

#include "discovery/nd_test_support.h"
#include "network_enum/api_support.h"
#include "support/tcp_peer.h"

namespace kmiotest {
namespace {

using ndtest::Bytes;

class HandBuiltDevice {
public:
    static constexpr const char* kSerial = "NE0HAND";

    HandBuiltDevice() : requests_(ndtest::kLoopbackBroadcast, 65111), sender_(ndtest::kLoopback, 0) {
        // Announce: a Discover Inform by directed broadcast, as a device
        // does when it starts.
        sender_.sendTo(ndtest::kLoopbackBroadcast, 65111, datagram(0xA2, {}));
        thread_ = std::thread([this] { answerRequests(); });
    }
    ~HandBuiltDevice() {
        stop_ = true;
        thread_.join();
    }
    std::uint16_t port() const { return echo_.port(); }
    void goSilent() { silent_ = true; }

private:
    // Header, then the discover payload: protocol 42, available, TCP port
    // (little-endian), info length, info, NUL.
    Bytes datagram(std::uint8_t opcode, const ndtest::TokenBytes& token) const {
        const std::uint16_t port = echo_.port();
        const Bytes payload = {
            42,  1, static_cast<std::uint8_t>(port), static_cast<std::uint8_t>(port >> 8), 4, 'h', 'a', 'n',
            'd', 0};
        return ndtest::handDatagram(opcode, 1, 7, kSerial, token, payload);
    }

    void answerRequests() {
        while (!stop_) {
            const auto request = requests_.receive({}, std::chrono::milliseconds(50));
            if (!request || silent_ || request->bytes.size() < 96 || request->bytes[3] != 0x21) {
                continue;
            }
            ndtest::TokenBytes token;
            std::copy(request->bytes.begin() + 80, request->bytes.begin() + 96, token.begin());
            sender_.sendTo(request->source, request->sourcePort, datagram(0xA1, token));
        }
    }

    kmio::test::TcpPeer echo_;
    ndtest::UdpSocket requests_;
    ndtest::UdpSocket sender_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> silent_{false};
    std::thread thread_;
};

TEST(HandBuiltDevice, IsFoundOpenedBySerialNumberAndReportedAsItComesAndGoes) {
    EventLog events;
    ASSERT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:127.0.0.1"), KM_IO_OK);
    HandBuiltDevice device;
    const std::string record =
        deviceLine("NE0HAND", device.port(), "network:sn:NE0HAND", "1", "127.0.0.1", "127.0.0.1", "hand");
    ASSERT_EQ(events.waitFor(1), 1u);
    EXPECT_EQ(events.at(0), std::make_pair(1u, record));

    std::uint32_t rc = 0;
    EXPECT_EQ(enumerate(kLoopback + "include-all\nforce-rescan 1", rc), record);
    EXPECT_EQ(rc, KM_IO_OK);
    expectEcho("network:sn:NE0HAND", "");

    // A device that no longer answers is dropped by the next pass.
    device.goSilent();
    EXPECT_EQ(enumerate(kLoopback + "only-locator\nforce-rescan 1", rc), "");
    ASSERT_EQ(events.waitFor(2), 2u);
    EXPECT_EQ(events.at(1), std::make_pair(2u, record));
    EXPECT_EQ(KM_IO_SetGlobalOptions("discovery-iface network:none"), KM_IO_OK);
}

}  // namespace
}  // namespace kmiotest
