// Any datagram: decoding, the payload readers and the text forms of packets
// and raw datagrams never fail, and a valid decode re-encodes to the bytes
// it came from.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "discovery/packet.h"
#include "fuzz_check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace kalometnd;
    const std::span<const std::uint8_t> datagram(data, size);
    (void)rawPacketText(datagram);
    Packet packet;
    const DecodeResult result = decode(datagram, packet);
    if (result == DecodeResult::Invalid) {
        return 0;
    }
    (void)packetText(packet);
    (void)tokenText(packet.token);
    (void)opCodeName(packet.opcode);
    DeviceConfig config;
    (void)readConfiguration(packet, config);
    std::string info;
    (void)readDeviceInfo(packet, info);
    ResultCode code{};
    if (readResultCode(packet, code)) {
        (void)resultCodeName(code);
    }
    DiscoverPayload payload;
    (void)readDiscoverPayload(packet, payload);
    FUZZ_CHECK(payload.info.size() <= kMaxInfoLength);
    // The serial field is cut at its first NUL, so only a serial number
    // without one inside the field comes back byte for byte.
    const bool serialIsWhole = packet.serialNumber.size() == kMaxSerialNumberLength ||
                               datagram[16 + packet.serialNumber.size()] == 0;
    bool paddedWithZeros = true;
    for (std::size_t i = 16 + packet.serialNumber.size(); i < 80; ++i) {
        paddedWithZeros = paddedWithZeros && datagram[i] == 0;
    }
    if (serialIsWhole && paddedWithZeros) {
        const RawPacket again = encode(packet);
        FUZZ_CHECK(again.size() == size);
        FUZZ_CHECK(std::equal(again.begin(), again.end(), data));
    }
    return 0;
}
