// Packets and payloads built from any values: decoding what was encoded gives
// the same record back.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>

#include "discovery/exceptions.h"
#include "discovery/packet.h"
#include "fuzz_check.h"

namespace {

using namespace kalometnd;

constexpr OpCode kOpCodes[] = {OpCode::GetConfiguration, OpCode::SetConfiguration, OpCode::ResetConfiguration,
                               OpCode::SetDeviceInfo,    OpCode::DiscoverRequest,  OpCode::Result,
                               OpCode::Configuration,    OpCode::DiscoverReply,    OpCode::DiscoverInform};

// Text without NUL bytes, at most `limit` long: what the fixed fields carry.
std::string text(FuzzedDataProvider& input, std::size_t limit) {
    std::string value = input.ConsumeRandomLengthString(limit);
    value.erase(std::remove(value.begin(), value.end(), '\0'), value.end());
    return value;
}

Packet roundTrip(const Packet& packet) {
    const RawPacket datagram = encode(packet);
    FUZZ_CHECK(datagram.size() % 4 == 0);
    Packet back;
    const DecodeResult result = decode(datagram, back);
    FUZZ_CHECK(result == (packet.version <= 1 ? DecodeResult::Valid : DecodeResult::UnsupportedVersion));
    FUZZ_CHECK(back.opcode == packet.opcode);
    FUZZ_CHECK(back.version == packet.version);
    FUZZ_CHECK(back.selector == packet.selector);
    FUZZ_CHECK(back.serialNumber == packet.serialNumber);
    FUZZ_CHECK(back.token == packet.token);
    // The payload comes back with its zero padding.
    FUZZ_CHECK(back.data.size() >= packet.data.size() && back.data.size() - packet.data.size() < 4);
    FUZZ_CHECK(std::equal(packet.data.begin(), packet.data.end(), back.data.begin()));
    FUZZ_CHECK(std::all_of(back.data.begin() + static_cast<std::ptrdiff_t>(packet.data.size()),
                           back.data.end(), [](std::uint8_t byte) { return byte == 0; }));
    return back;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    Packet packet;
    packet.opcode = input.PickValueInArray(kOpCodes);
    packet.version = input.ConsumeIntegral<std::uint32_t>();
    packet.selector = input.ConsumeIntegral<std::uint32_t>();
    packet.serialNumber = text(input, kMaxSerialNumberLength);
    for (std::uint8_t& byte : packet.token) {
        byte = input.ConsumeIntegral<std::uint8_t>();
    }
    switch (input.ConsumeIntegralInRange(0, 4)) {
        case 0: {
            DiscoverPayload payload;
            payload.protocolId = input.ConsumeIntegral<std::uint8_t>();
            payload.available = input.ConsumeBool();
            payload.port = input.ConsumeIntegral<std::uint16_t>();
            payload.info = text(input, kMaxInfoLength);
            packet = input.ConsumeBool()
                         ? buildDiscoverReply(packet.token, packet.selector, packet.serialNumber, payload)
                         : buildDiscoverInform(packet.selector, packet.serialNumber, payload);
            DiscoverPayload back;
            FUZZ_CHECK(readDiscoverPayload(roundTrip(packet), back));
            FUZZ_CHECK(back == payload);
            return 0;
        }
        case 1: {
            DeviceConfig config;
            config.ipAddress = input.ConsumeIntegral<std::uint32_t>();
            config.subnetMask = input.ConsumeIntegral<std::uint32_t>();
            config.gateway = input.ConsumeIntegral<std::uint32_t>();
            config.dhcp = input.ConsumeBool();
            packet.opcode = OpCode::Configuration;
            packet.data = encodeConfiguration(config);
            DeviceConfig back;
            FUZZ_CHECK(readConfiguration(roundTrip(packet), back));
            FUZZ_CHECK(back == config);
            return 0;
        }
        case 2: {
            const auto code = static_cast<ResultCode>(input.ConsumeIntegral<std::uint16_t>());
            packet.opcode = OpCode::Result;
            packet.data = encodeResultCode(code);
            ResultCode back{};
            FUZZ_CHECK(readResultCode(roundTrip(packet), back));
            FUZZ_CHECK(back == code);
            return 0;
        }
        case 3: {
            const std::string info = text(input, kMaxInfoLength);
            packet.opcode = OpCode::SetDeviceInfo;
            packet.data = encodeDeviceInfo(info);
            std::string back;
            FUZZ_CHECK(readDeviceInfo(roundTrip(packet), back));
            FUZZ_CHECK(back == info);
            return 0;
        }
        default: {
            const std::string payload = input.ConsumeRemainingBytesAsString();
            packet.data.assign(payload.begin(), payload.end());
            try {
                (void)roundTrip(packet);
            } catch (const InvalidArgumentException&) {
                FUZZ_CHECK(packet.data.size() > kMaxPayloadSize);
            }
            return 0;
        }
    }
}
