#include "discovery/packet.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "discovery/exceptions.h"

namespace kalometnd {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A header written out from the layout table, byte by byte, independent of encode().
Bytes handHeader(std::uint16_t total, std::uint8_t opcode, std::uint32_t version, std::uint32_t selector,
                 const std::string& serial, const Token& token) {
    Bytes b = {0xC2,
               static_cast<std::uint8_t>((total - 3) & 0xFF),
               static_cast<std::uint8_t>((total - 3) >> 8),
               opcode,
               'P',
               'D',
               'N',
               'K',
               static_cast<std::uint8_t>(version),
               static_cast<std::uint8_t>(version >> 8),
               static_cast<std::uint8_t>(version >> 16),
               static_cast<std::uint8_t>(version >> 24),
               static_cast<std::uint8_t>(selector),
               static_cast<std::uint8_t>(selector >> 8),
               static_cast<std::uint8_t>(selector >> 16),
               static_cast<std::uint8_t>(selector >> 24)};
    for (std::size_t i = 0; i < 64; ++i) {
        b.push_back(i < serial.size() ? static_cast<std::uint8_t>(serial[i]) : 0);
    }
    b.insert(b.end(), token.begin(), token.end());
    return b;
}

const Token kToken = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0x4D, 0xEF,
                      0x80, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};

TEST(PacketEncode, DiscoverRequestMatchesTheLayoutByteForByte) {
    const Bytes expected = handHeader(96, 0x21, 1, 0x12345678, "SN42", kToken);
    ASSERT_EQ(expected.size(), 96u);
    // Spot-check the hand-made vector against the table itself.
    EXPECT_EQ(expected[1], 93);
    EXPECT_EQ(expected[12], 0x78);
    EXPECT_EQ(encode(buildDiscoverRequest(0x12345678, "SN42", kToken)), expected);
}

TEST(PacketEncode, DiscoverReplyPayloadAndPadding) {
    // Payload: protocol 0x2A, available, port 55550 (0xD8FE) LE, "hi" + NUL = 8 bytes; 104 total.
    Bytes expected = handHeader(104, 0xA1, 1, 7, "DEV", kToken);
    const Bytes payload = {0x2A, 0x01, 0xFE, 0xD8, 0x02, 'h', 'i', 0x00};
    expected.insert(expected.end(), payload.begin(), payload.end());
    const Packet reply = buildDiscoverReply(kToken, 7, "DEV", {0x2A, true, 55550, "hi"});
    EXPECT_EQ(encode(reply), expected);

    Packet decoded;
    ASSERT_EQ(decode(expected, decoded), DecodeResult::Valid);
    DiscoverPayload read;
    ASSERT_TRUE(readDiscoverPayload(decoded, read));
    EXPECT_EQ(read, (DiscoverPayload{0x2A, true, 55550, "hi"}));
    EXPECT_EQ(decoded.selector, 7u);
    EXPECT_EQ(decoded.serialNumber, "DEV");
    EXPECT_EQ(decoded.token, kToken);
}

TEST(PacketEncode, ConfigurationWireOrderIsDhcpIpGatewayMask) {
    Packet p;
    p.opcode = OpCode::Configuration;
    p.data = encodeConfiguration({0xC0A80114, 0xFFFFFF00, 0xC0A80101, true});
    EXPECT_EQ(p.data, (Bytes{1, 192, 168, 1, 20, 192, 168, 1, 1, 255, 255, 255, 0}));
    Bytes datagram = handHeader(112, 0x82, 1, 0, "", Token{});
    datagram.insert(datagram.end(), p.data.begin(), p.data.end());
    datagram.resize(112, 0);
    EXPECT_EQ(encode(p), datagram);
}

TEST(PacketEncode, SerialNumberOf64CharactersIsCutTo63) {
    const std::string serial(64, 'A');
    const Bytes raw = encode(buildDiscoverRequest(0, serial, kToken));
    ASSERT_EQ(raw.size(), 96u);
    EXPECT_EQ(raw[16 + 62], 'A');
    EXPECT_EQ(raw[16 + 63], 0);
    Packet decoded;
    ASSERT_EQ(decode(raw, decoded), DecodeResult::Valid);
    EXPECT_EQ(decoded.serialNumber, std::string(63, 'A'));
}

TEST(PacketEncode, OneBytePayloadIsPaddedTo100) {
    Packet p;
    p.opcode = OpCode::SetDeviceInfo;
    p.data = {0x00};
    const Bytes raw = encode(p);
    ASSERT_EQ(raw.size(), 100u);
    EXPECT_EQ(raw[1], 97);
    EXPECT_EQ(raw[2], 0);
    Packet decoded;
    ASSERT_EQ(decode(raw, decoded), DecodeResult::Valid);
    EXPECT_EQ(decoded.data, (Bytes{0, 0, 0, 0}));
}

TEST(PacketEncode, RejectsPayloadThatOverflowsTheLengthField) {
    Packet p;
    p.data.assign(kMaxPayloadSize, 0);
    EXPECT_EQ(encode(p).size(), 65532u);
    p.data.push_back(0);
    EXPECT_THROW(encode(p), InvalidArgumentException);
}

TEST(PacketDecode, HeaderOnlyDatagramHasEmptyData) {
    Packet decoded;
    decoded.data = {9, 9};
    ASSERT_EQ(decode(handHeader(96, 0x21, 0, 3, "X", kToken), decoded), DecodeResult::Valid);
    EXPECT_TRUE(decoded.data.empty());
    EXPECT_EQ(decoded.version, 0u);
    EXPECT_EQ(decoded.opcode, OpCode::DiscoverRequest);
}

TEST(PacketDecode, EveryMalformedHeaderIsInvalid) {
    const Bytes good = handHeader(96, 0x21, 1, 0, "", kToken);
    struct Case {
        const char* name;
        Bytes datagram;
    };
    std::vector<Case> cases;
    cases.push_back({"empty", {}});
    cases.push_back({"short", Bytes(good.begin(), good.begin() + 92)});
    for (int extra = 1; extra <= 3; ++extra) {
        Bytes b = good;
        b.resize(96 + extra, 0);
        b[1] = static_cast<std::uint8_t>(b.size() - 3);
        cases.push_back({"not a multiple of 4", b});
    }
    Bytes b = good;
    b[0] = 0xC3;
    cases.push_back({"start byte", b});
    b = good;
    b.resize(100, 0);  // length still says 93: the padding is counted differently
    cases.push_back({"length", b});
    b = good;
    b[7] = 'X';
    cases.push_back({"magic", b});
    for (const Case& c : cases) {
        Packet out;
        EXPECT_EQ(decode(c.datagram, out), DecodeResult::Invalid) << c.name;
    }
}

TEST(PacketDecode, VersionTwoIsUnsupportedButFilled) {
    Packet out;
    ASSERT_EQ(decode(handHeader(96, 0xA2, 2, 5, "S", kToken), out), DecodeResult::UnsupportedVersion);
    EXPECT_EQ(out.version, 2u);
    EXPECT_EQ(out.opcode, OpCode::DiscoverInform);
    EXPECT_EQ(out.serialNumber, "S");
}

Packet withPayload(OpCode opcode, Bytes data) {
    Packet p;
    p.opcode = opcode;
    p.data = std::move(data);
    return p;
}

TEST(PacketReaders, OpcodeSetsAndMinimumSizes) {
    DeviceConfig config;
    for (OpCode op : {OpCode::GetConfiguration, OpCode::SetConfiguration, OpCode::Configuration}) {
        EXPECT_TRUE(readConfiguration(withPayload(op, Bytes(13, 0)), config));
        EXPECT_FALSE(readConfiguration(withPayload(op, Bytes(12, 0)), config));
    }
    EXPECT_FALSE(readConfiguration(withPayload(OpCode::Result, Bytes(13, 0)), config));

    ResultCode code{};
    EXPECT_TRUE(readResultCode(withPayload(OpCode::Result, {0xFF, 0x7F, 0, 0}), code));
    EXPECT_EQ(code, ResultCode::Other);
    EXPECT_FALSE(readResultCode(withPayload(OpCode::Result, {0x01}), code));
    EXPECT_FALSE(readResultCode(withPayload(OpCode::Configuration, {0, 0}), code));

    std::string info;
    EXPECT_TRUE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, {0, 0}), info));
    EXPECT_EQ(info, "");
    EXPECT_TRUE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, {2, 'a', 'b', 0}), info));
    EXPECT_EQ(info, "ab");
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, {2, 'a', 'b'}), info));
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, {0}), info));
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::DiscoverReply, {0, 0}), info));
    Bytes longText(66, 'x');
    longText[0] = 64;
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, longText), info));
    longText[0] = 63;
    EXPECT_TRUE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, longText), info));
    EXPECT_EQ(info, std::string(63, 'x'));
}

TEST(PacketReaders, DiscoverPayloadBounds) {
    DiscoverPayload out;
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverInform, {1, 1, 2, 0, 0}), out));
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverRequest, {1, 1, 2, 0, 0, 0}), out));
    ASSERT_TRUE(readDiscoverPayload(withPayload(OpCode::DiscoverInform, {9, 0, 0x10, 0x27, 0, 0}), out));
    EXPECT_EQ(out, (DiscoverPayload{9, false, 10000, ""}));

    // Length 64 and a missing NUL are malformed, but the fixed fields still arrive.
    Bytes tooLong(70, 'x');
    tooLong[0] = 3;
    tooLong[1] = 1;
    tooLong[2] = 0x34;
    tooLong[3] = 0x12;
    tooLong[4] = 64;
    out.info = "stale";
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverReply, tooLong), out));
    EXPECT_EQ(out, (DiscoverPayload{3, true, 0x1234, ""}));
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverReply, {3, 1, 0, 0, 2, 'a', 'b'}), out));
    EXPECT_TRUE(readDiscoverPayload(withPayload(OpCode::DiscoverReply, {3, 1, 0, 0, 2, 'a', 'b', 0}), out));
    EXPECT_EQ(out.info, "ab");
}

TEST(PacketWriters, RejectLongTexts) {
    EXPECT_THROW(encodeDiscoverPayload({1, true, 1, std::string(64, 'x')}), InvalidArgumentException);
    EXPECT_THROW(encodeDeviceInfo(std::string(64, 'x')), InvalidArgumentException);
    EXPECT_EQ(encodeDeviceInfo("ok"), (Bytes{2, 'o', 'k', 0}));
    EXPECT_EQ(encodeResultCode(ResultCode::FeatureNotSupported), (Bytes{0xFD, 0x7F}));
}

TEST(PacketText, TokenIsUpperCaseUuid) {
    EXPECT_EQ(tokenText(kToken), "01234567-89AB-4DEF-8011-223344556677");
}

TEST(PacketText, PacketLinePerOpcode) {
    const std::string head = "KM_ND_Packet { OpCode: ";
    const std::string tok = ", Token: 01234567-89AB-4DEF-8011-223344556677";
    Packet p = buildDiscoverRequest(0, "SN", kToken);
    EXPECT_EQ(packetText(p), head + "Discover Request, Version: 1, SerialNumber: \"SN\"" + tok + " }");

    p = buildDiscoverReply(kToken, 0, "SN", {0x2A, false, 80, "desk"});
    EXPECT_EQ(packetText(p), head + "Discover Reply, Version: 1, SerialNumber: \"SN\"" + tok +
                                 ", ProtocolId: 0x2a, Port: 80, Available: No, Info: desk }");
    p.data = {0, 1, 0, 0, 0, 0};
    p.opcode = OpCode::DiscoverInform;
    EXPECT_EQ(packetText(p), head + "Discover Inform, Version: 1, SerialNumber: \"SN\"" + tok +
                                 ", ProtocolId: 0x0, Port: 0, Available: Yes, Info:  }");
    p.data = {0, 1, 0};
    EXPECT_NE(packetText(p).find(", Data: INVALID }"), std::string::npos);

    p.opcode = OpCode::SetConfiguration;
    p.data = {0, 10, 0, 0, 5, 10, 0, 0, 1, 255, 0, 0, 0};
    EXPECT_NE(
        packetText(p).find(", IP: 10.0.0.5, Gateway: 10.0.0.1, SubnetMask: 255.0.0.0, DHCP: Disabled }"),
        std::string::npos);
    p.opcode = OpCode::SetDeviceInfo;
    p.data = {1, 'z', 0};
    EXPECT_NE(packetText(p).find(", Device Info: \"z\" }"), std::string::npos);
    p.opcode = OpCode::Result;
    p.data = {5, 0};
    EXPECT_NE(packetText(p).find("OpCode: Result, "), std::string::npos);
    EXPECT_NE(packetText(p).find(", ResultCode: Unknown }"), std::string::npos);
    p.opcode = static_cast<OpCode>(0x55);
    p.version = 7;
    EXPECT_EQ(packetText(p), head + "Unknown, Version: 7, SerialNumber: \"SN\"" + tok + " }");
}

TEST(PacketText, Names) {
    EXPECT_EQ(resultCodeName(ResultCode::ProtocolVersionNotSupported), "ProtocolVersionNotSupported");
    EXPECT_EQ(resultCodeName(static_cast<ResultCode>(0x7FFE)), "FeatureNotImplemented");
    EXPECT_EQ(resultCodeName(static_cast<ResultCode>(2)), "Unknown");
    EXPECT_EQ(opCodeName(OpCode::GetConfiguration), "Get Configuration");
    EXPECT_EQ(opCodeName(static_cast<OpCode>(0xA3)), "Unknown");
}

TEST(PacketText, RawLineGroupsEightBytes) {
    EXPECT_EQ(rawPacketText(Bytes{}), "KM_ND_RawPacket { size: 0}");
    EXPECT_EQ(rawPacketText(Bytes{0xC2, 0x0A}), "KM_ND_RawPacket { size: 2, data: c2 0a }");
    Bytes nine = {0, 1, 2, 3, 4, 5, 6, 7, 0xff};
    EXPECT_EQ(rawPacketText(nine), "KM_ND_RawPacket { size: 9, data: 00 01 02 03 04 05 06 07  ff }");
}

}  // namespace
}  // namespace kalometnd
