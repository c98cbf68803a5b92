#include <string>

#include "discovery/packet.h"
#include "platform/ipv4.h"

namespace kalometnd {

namespace {

constexpr char kUpperHex[] = "0123456789ABCDEF";
constexpr char kLowerHex[] = "0123456789abcdef";

std::string lowerHex(unsigned value) {
    std::string digits;
    do {
        digits.insert(digits.begin(), kLowerHex[value & 0xF]);
        value >>= 4;
    } while (value != 0);
    return digits;
}

std::string payloadText(const Packet& packet) {
    switch (packet.opcode) {
        case OpCode::SetConfiguration:
        case OpCode::Configuration: {
            DeviceConfig config;
            if (!readConfiguration(packet, config)) {
                break;
            }
            return ", IP: " + kmio::formatIpv4(config.ipAddress) +
                   ", Gateway: " + kmio::formatIpv4(config.gateway) +
                   ", SubnetMask: " + kmio::formatIpv4(config.subnetMask) +
                   ", DHCP: " + (config.dhcp ? "Enabled" : "Disabled");
        }
        case OpCode::SetDeviceInfo: {
            std::string info;
            if (!readDeviceInfo(packet, info)) {
                break;
            }
            return ", Device Info: \"" + info + "\"";
        }
        case OpCode::Result: {
            ResultCode code{};
            if (!readResultCode(packet, code)) {
                break;
            }
            return ", ResultCode: " + std::string(resultCodeName(code));
        }
        case OpCode::DiscoverReply:
        case OpCode::DiscoverInform: {
            DiscoverPayload payload;
            if (!readDiscoverPayload(packet, payload)) {
                break;
            }
            return ", ProtocolId: 0x" + lowerHex(payload.protocolId) +
                   ", Port: " + std::to_string(payload.port) +
                   ", Available: " + (payload.available ? "Yes" : "No") + ", Info: " + payload.info;
        }
        default:
            return "";
    }
    return ", Data: INVALID";
}

}  // namespace

std::string_view opCodeName(OpCode opcode) {
    switch (opcode) {
        case OpCode::GetConfiguration:
            return "Get Configuration";
        case OpCode::SetConfiguration:
            return "Set Configuration";
        case OpCode::ResetConfiguration:
            return "Reset Configuration";
        case OpCode::SetDeviceInfo:
            return "Set Device Info";
        case OpCode::DiscoverRequest:
            return "Discover Request";
        case OpCode::Result:
            return "Result";
        case OpCode::Configuration:
            return "Configuration";
        case OpCode::DiscoverReply:
            return "Discover Reply";
        case OpCode::DiscoverInform:
            return "Discover Inform";
    }
    return "Unknown";
}

std::string_view resultCodeName(ResultCode code) {
    switch (code) {
        case ResultCode::Success:
            return "Success";
        case ResultCode::UnknownCommand:
            return "UnknownCommand";
        case ResultCode::InvalidParameter:
            return "InvalidParameter";
        case ResultCode::PermissionDenied:
            return "PermissionDenied";
        case ResultCode::ProtocolVersionNotSupported:
            return "ProtocolVersionNotSupported";
        case ResultCode::CommandNotProcessable:
            return "CommandNotProcessable";
        case ResultCode::FeatureNotSupported:
            return "FeatureNotSupported";
        case ResultCode::FeatureNotImplemented:
            return "FeatureNotImplemented";
        case ResultCode::Other:
            return "Other";
    }
    return "Unknown";
}

std::string tokenText(const Token& token) {
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < token.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += kUpperHex[token[i] >> 4];
        text += kUpperHex[token[i] & 0xF];
    }
    return text;
}

std::string packetText(const Packet& packet) {
    return "KM_ND_Packet { OpCode: " + std::string(opCodeName(packet.opcode)) +
           ", Version: " + std::to_string(packet.version) + ", SerialNumber: \"" + packet.serialNumber +
           "\", Token: " + tokenText(packet.token) + payloadText(packet) + " }";
}

std::string rawPacketText(std::span<const std::uint8_t> datagram) {
    std::string text = "KM_ND_RawPacket { size: " + std::to_string(datagram.size());
    if (!datagram.empty()) {
        text += ", data:";
        for (std::size_t i = 0; i < datagram.size(); ++i) {
            if (i % 8 == 0) {
                text += ' ';
            }
            text += kLowerHex[datagram[i] >> 4];
            text += kLowerHex[datagram[i] & 0xF];
            text += ' ';
        }
    }
    text += '}';
    return text;
}

}  // namespace kalometnd
