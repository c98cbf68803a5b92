#include "discovery/packet.h"

#include <gtest/gtest.h>

#include <tuple>

#include "discovery/exceptions.h"
#include "nd_test_support.h"

namespace kalometnd {
namespace {

using kmiotest::Bytes;
using kmiotest::handDatagram;
using kmiotest::handHeader;

const Token kToken = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0x4D, 0xEF,
                      0x80, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};

constexpr std::uint32_t kSelector = 0x12345678;

Packet withPayload(OpCode opcode, Bytes data, std::uint32_t version = 1, const std::string& serial = "SN") {
    Packet p = buildDiscoverRequest(kSelector, serial, kToken);
    p.opcode = opcode;
    p.data = std::move(data);
    p.version = version;
    return p;
}

auto fields(const Packet& p) {
    return std::tie(p.version, p.opcode, p.selector, p.serialNumber, p.token, p.data);
}

// Expected datagrams come from the layout table by hand, never from encode().
TEST(PacketEncode, MatchesHandWrittenDatagrams) {
    struct Case {
        const char* name;
        Packet packet;
        std::size_t size;
        Bytes expected;
    };
    const Case cases[] = {
        {"request", buildDiscoverRequest(kSelector, "SN42", kToken), 96,
         handHeader(96, 0x21, 1, kSelector, "SN42", kToken)},
        {"serial cut to 63", buildDiscoverRequest(0, std::string(64, 'A'), kToken), 96,
         handHeader(96, 0x21, 1, 0, std::string(63, 'A'), kToken)},
        // Port 55550 is 0xD8FE, little-endian.
        {"reply", buildDiscoverReply(kToken, 7, "DEV", {0x2A, true, 55550, "hi"}), 104,
         handDatagram(0xA1, 1, 7, "DEV", kToken, {0x2A, 0x01, 0xFE, 0xD8, 0x02, 'h', 'i', 0x00})},
        {"inform", buildDiscoverInform(9, "I", {1, false, 80, ""}), 104,
         handDatagram(0xA2, 1, 9, "I", {}, {1, 0, 80, 0, 0, 0})},
        // Wire order: DHCP, IP, gateway, mask; each address first octet first.
        {"configuration",
         withPayload(OpCode::Configuration, encodeConfiguration({0xC0A80114, 0xFFFFFF00, 0xC0A80101, true})),
         112,
         handDatagram(0x82, 1, kSelector, "SN", kToken,
                      {1, 192, 168, 1, 20, 192, 168, 1, 1, 255, 255, 255, 0})},
        {"device info", withPayload(OpCode::SetDeviceInfo, encodeDeviceInfo("ok")), 100,
         handDatagram(0x04, 1, kSelector, "SN", kToken, {2, 'o', 'k', 0})},
        {"result", withPayload(OpCode::Result, encodeResultCode(ResultCode::FeatureNotSupported)), 100,
         handDatagram(0x81, 1, kSelector, "SN", kToken, {0xFD, 0x7F})},
        {"one byte padded", withPayload(OpCode::SetDeviceInfo, {0}), 100,
         handDatagram(0x04, 1, kSelector, "SN", kToken, {0})},
    };
    for (const Case& c : cases) {
        ASSERT_EQ(c.expected.size(), c.size) << c.name;
        EXPECT_EQ(encode(c.packet), c.expected) << c.name;
    }
}

TEST(PacketEncode, RejectsWhatDoesNotFit) {
    Packet p;
    p.data.assign(kMaxPayloadSize, 0);
    EXPECT_EQ(encode(p).size(), 65532u);
    p.data.push_back(0);
    EXPECT_THROW(encode(p), InvalidArgumentException);
    EXPECT_EQ(encodeDeviceInfo(std::string(63, 'x')).size(), 65u);
    EXPECT_THROW(encodeDeviceInfo(std::string(64, 'x')), InvalidArgumentException);
    EXPECT_THROW(encodeDiscoverPayload({1, true, 1, std::string(64, 'x')}), InvalidArgumentException);
}

TEST(PacketDecode, HandWrittenDatagramsFillEveryField) {
    const Bytes replyPayload = {0x2A, 0x01, 0xFE, 0xD8, 0x02, 'h', 'i', 0x00};
    struct Case {
        Bytes datagram;
        DecodeResult result;
        Packet expected;
    };
    const Case cases[] = {
        {handHeader(96, 0x21, 0, kSelector, "SN", kToken), DecodeResult::Valid,
         withPayload(OpCode::DiscoverRequest, {}, 0)},
        {handDatagram(0xA1, 1, kSelector, "SN", kToken, replyPayload), DecodeResult::Valid,
         withPayload(OpCode::DiscoverReply, replyPayload)},
        // The sender's padding stays in data.
        {handDatagram(0x04, 1, kSelector, "SN", kToken, {7}), DecodeResult::Valid,
         withPayload(OpCode::SetDeviceInfo, {7, 0, 0, 0})},
        // A serial field without a NUL yields 63 characters.
        {handHeader(96, 0x21, 1, kSelector, std::string(64, 'A'), kToken), DecodeResult::Valid,
         withPayload(OpCode::DiscoverRequest, {}, 1, std::string(63, 'A'))},
        {handHeader(96, 0xA2, 2, kSelector, "SN", kToken), DecodeResult::UnsupportedVersion,
         withPayload(OpCode::DiscoverInform, {}, 2)},
    };
    for (const Case& c : cases) {
        Packet out;
        out.data = {9, 9};
        EXPECT_EQ(decode(c.datagram, out), c.result);
        EXPECT_EQ(fields(out), fields(c.expected)) << packetText(c.expected);
    }
}

TEST(PacketDecode, EveryMalformedHeaderIsInvalid) {
    const Bytes good = handHeader(96, 0x21, 1, 0, "", kToken);
    const auto changed = [&](std::size_t size, std::size_t at, std::uint8_t value) {
        Bytes b = good;
        b.resize(size, 0);
        b[at] = value;
        return b;
    };
    const std::pair<const char*, Bytes> cases[] = {
        {"empty", {}},
        {"short", Bytes(good.begin(), good.begin() + 92)},
        {"97 bytes", changed(97, 1, 94)},
        {"98 bytes", changed(98, 1, 95)},
        {"99 bytes", changed(99, 1, 96)},
        {"start byte", changed(96, 0, 0xC3)},
        {"length", changed(100, 1, 93)},
        {"magic", changed(96, 7, 'X')},
    };
    for (const auto& [name, datagram] : cases) {
        Packet out;
        EXPECT_EQ(decode(datagram, out), DecodeResult::Invalid) << name;
    }
}

TEST(PacketReaders, ConfigurationNeedsThirteenBytesOfAConfigurationOpcode) {
    DeviceConfig config;
    for (OpCode op : {OpCode::GetConfiguration, OpCode::SetConfiguration, OpCode::Configuration}) {
        EXPECT_TRUE(readConfiguration(withPayload(op, Bytes(13, 0)), config));
        EXPECT_FALSE(readConfiguration(withPayload(op, Bytes(12, 0)), config));
    }
    EXPECT_FALSE(readConfiguration(withPayload(OpCode::Result, Bytes(13, 0)), config));
}

TEST(PacketReaders, ResultCodeNeedsTwoBytesOfAResultAndMapsUnknownValuesToOther) {
    ResultCode code{};
    EXPECT_TRUE(readResultCode(withPayload(OpCode::Result, {0xFF, 0x7F, 0, 0}), code));
    EXPECT_EQ(code, ResultCode::Other);
    EXPECT_FALSE(readResultCode(withPayload(OpCode::Result, {0x01}), code));
    EXPECT_FALSE(readResultCode(withPayload(OpCode::Configuration, {0, 0}), code));
}

TEST(PacketReaders, DeviceInfoIsATextOfAtMost63BytesEndedByItsNul) {
    std::string info;
    Bytes longText(66, 'x');
    longText[0] = 64;
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, longText), info));
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, {2, 'a', 'b'}), info));
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, {0}), info));
    EXPECT_FALSE(readDeviceInfo(withPayload(OpCode::DiscoverReply, {0, 0}), info));
    EXPECT_TRUE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, {0, 0}), info));
    EXPECT_EQ(info, "");
    longText[0] = 63;
    EXPECT_TRUE(readDeviceInfo(withPayload(OpCode::SetDeviceInfo, longText), info));
    EXPECT_EQ(info, std::string(63, 'x'));
}

TEST(PacketReaders, DiscoverPayloadNeedsSixBytesOfAReplyOrInform) {
    DiscoverPayload out;
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverInform, {1, 1, 2, 0, 0}), out));
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverRequest, {1, 1, 2, 0, 0, 0}), out));
    ASSERT_TRUE(readDiscoverPayload(withPayload(OpCode::DiscoverInform, {9, 0, 0x10, 0x27, 0, 0}), out));
    EXPECT_EQ(out, (DiscoverPayload{9, false, 10000, ""}));
}

TEST(PacketReaders, DiscoverPayloadWithABadTextStillDeliversItsFixedFields) {
    // Length 64 and a missing NUL are malformed, but the fixed fields still arrive.
    DiscoverPayload out;
    Bytes tooLong(70, 'x');
    std::copy_n(Bytes{3, 1, 0x34, 0x12, 64}.begin(), 5, tooLong.begin());
    out.info = "stale";
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverReply, tooLong), out));
    EXPECT_EQ(out, (DiscoverPayload{3, true, 0x1234, ""}));
    EXPECT_FALSE(readDiscoverPayload(withPayload(OpCode::DiscoverReply, {3, 1, 0, 0, 2, 'a', 'b'}), out));
    EXPECT_TRUE(readDiscoverPayload(withPayload(OpCode::DiscoverReply, {3, 1, 0, 0, 2, 'a', 'b', 0}), out));
    EXPECT_EQ(out.info, "ab");
}

TEST(PacketText, PacketLinePerOpcode) {
    // "@" stands for the header fields of withPayload().
    const std::pair<Packet, std::string> cases[] = {
        {withPayload(OpCode::DiscoverRequest, {}), "Discover Request@"},
        {withPayload(OpCode::GetConfiguration, Bytes(13, 0)), "Get Configuration@"},
        {withPayload(OpCode::DiscoverReply, {0x2A, 0, 80, 0, 4, 'd', 'e', 's', 'k', 0}),
         "Discover Reply@, ProtocolId: 0x2a, Port: 80, Available: No, Info: desk"},
        {withPayload(OpCode::DiscoverInform, {0, 1, 0, 0, 0, 0}),
         "Discover Inform@, ProtocolId: 0x0, Port: 0, Available: Yes, Info: "},
        {withPayload(OpCode::DiscoverInform, {0, 1, 0}), "Discover Inform@, Data: INVALID"},
        {withPayload(OpCode::SetConfiguration, {0, 10, 0, 0, 5, 10, 0, 0, 1, 255, 0, 0, 0}),
         "Set Configuration@, IP: 10.0.0.5, Gateway: 10.0.0.1, SubnetMask: 255.0.0.0, DHCP: Disabled"},
        {withPayload(OpCode::Configuration, {1, 192, 168, 0, 2, 192, 168, 0, 1, 255, 255, 255, 0}),
         "Configuration@, IP: 192.168.0.2, Gateway: 192.168.0.1, SubnetMask: 255.255.255.0, DHCP: Enabled"},
        {withPayload(OpCode::SetDeviceInfo, {1, 'z', 0}), "Set Device Info@, Device Info: \"z\""},
        {withPayload(OpCode::Result, {5, 0}), "Result@, ResultCode: Unknown"},
        {withPayload(OpCode::Result, {0xFE, 0x7F}), "Result@, ResultCode: FeatureNotImplemented"},
        {withPayload(OpCode::Result, {32, 0}), "Result@, ResultCode: ProtocolVersionNotSupported"},
    };
    const std::string header =
        ", Version: 1, SerialNumber: \"SN\", Token: 01234567-89AB-4DEF-8011-223344556677";
    for (auto [packet, text] : cases) {
        text.replace(text.find('@'), 1, header);
        EXPECT_EQ(packetText(packet), "KM_ND_Packet { OpCode: " + text + " }");
    }
    EXPECT_EQ(packetText(withPayload(static_cast<OpCode>(0xA3), {}, 7)),
              "KM_ND_Packet { OpCode: Unknown, Version: 7, SerialNumber: \"SN\", Token: " +
                  tokenText(kToken) + " }");
}

TEST(PacketText, RawLineGroupsEightBytes) {
    EXPECT_EQ(rawPacketText(Bytes{}), "KM_ND_RawPacket { size: 0}");
    EXPECT_EQ(rawPacketText(Bytes{0xC2, 0x0A}), "KM_ND_RawPacket { size: 2, data: c2 0a }");
    EXPECT_EQ(rawPacketText(Bytes{0, 1, 2, 3, 4, 5, 6, 7, 0xff}),
              "KM_ND_RawPacket { size: 9, data: 00 01 02 03 04 05 06 07  ff }");
}

}  // namespace
}  // namespace kalometnd
