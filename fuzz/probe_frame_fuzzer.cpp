// Arbitrary bytes as a chip's answer to the protocol-id query, read through
// the probe's own frame reader over a driver that hands them out a few at a
// time: every frame it accepts re-encodes to exactly the bytes it came from,
// it never asks the driver for more than is queued, and it stops when the
// bytes run out. The same bytes go through the decoder directly and through
// the CRC, which must equal a bit-by-bit reference at any alignment.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "fuzz_check.h"
#include "usb/d2xx_binding.h"
#include "usb/probe_frame.h"
#include "usb/probe_frame_reader.h"

namespace {

using namespace kmio;

// The bytes a simulated chip has queued; FT_Read hands out at most `chunk`.
struct QueuedBytes {
    std::span<const std::uint8_t> bytes;
    std::size_t at = 0;
    std::uint32_t chunk = 1;
};
QueuedBytes queued;

std::size_t remaining() {
    return queued.bytes.size() - queued.at;
}

d2xx::FT_STATUS getStatus(d2xx::FT_HANDLE, std::uint32_t* rx, std::uint32_t* tx, std::uint32_t* events) {
    *rx = static_cast<std::uint32_t>(remaining());
    *tx = 0;
    *events = 0;
    return d2xx::kOk;
}

d2xx::FT_STATUS read(d2xx::FT_HANDLE, void* into, std::uint32_t wanted, std::uint32_t* got) {
    // The reader only reads what FT_GetStatus said was there.
    FUZZ_CHECK(wanted > 0 && wanted <= remaining());
    const std::size_t count = std::min<std::size_t>(wanted, queued.chunk);
    std::memcpy(into, queued.bytes.data() + queued.at, count);
    queued.at += count;
    *got = static_cast<std::uint32_t>(count);
    return d2xx::kOk;
}

std::uint32_t bitwiseCrc32(std::span<const std::uint8_t> bytes) {
    std::uint32_t crc = 0xFFFFFFFF;
    for (const std::uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1U) != 0 ? (crc >> 1) ^ 0xEDB88320U : crc >> 1;
        }
    }
    return ~crc;
}

void checkReader(std::span<const std::uint8_t> bytes, std::uint32_t chunk) {
    D2xxEntryPoints api;
    api.FT_GetStatus = getStatus;
    api.FT_Read = read;
    queued = QueuedBytes{bytes, 0, chunk};
    // A deadline already past: once the bytes run out the reader gives up at once.
    ProbeFrameReader reader(api, nullptr, std::chrono::steady_clock::now() - std::chrono::seconds(1));
    ProbeFrame frame;
    ProbeFrameReader::Result result;
    while ((result = reader.next(frame)) == ProbeFrameReader::Result::Done) {
        // The frame is the last bytes consumed, and encodes back to them.
        const std::vector<std::uint8_t> encoded = encodeProbeFrame(frame.type, frame.payload);
        FUZZ_CHECK(encoded.size() <= queued.at);
        FUZZ_CHECK(std::equal(encoded.begin(), encoded.end(), bytes.begin() + (queued.at - encoded.size())));
    }
    FUZZ_CHECK(result == ProbeFrameReader::Result::TimedOut);
}

void checkDecoder(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < probe_frame::kHeadSize) {
        return;
    }
    const std::span<const std::uint8_t, probe_frame::kHeadSize> head = bytes.first<probe_frame::kHeadSize>();
    // Exactly sized copy, so that a read past the end is caught.
    const std::vector<std::uint8_t> rest(bytes.begin() + probe_frame::kHeadSize, bytes.end());
    const auto decoded = decodeProbeFrame(head, rest);
    if (!decoded) {
        return;
    }
    FUZZ_CHECK(decoded->type == rest[0]);
    FUZZ_CHECK(decoded->payload.size() + probe_frame::kMinimumLength == rest.size());
    FUZZ_CHECK(bitwiseCrc32(bytes.first(bytes.size() - probe_frame::kChecksumSize)) ==
               (std::uint32_t{rest[rest.size() - 4]} | std::uint32_t{rest[rest.size() - 3]} << 8 |
                std::uint32_t{rest[rest.size() - 2]} << 16 | std::uint32_t{rest[rest.size() - 1]} << 24));
    if (frameLengthFromHead(head) == rest.size()) {
        const std::vector<std::uint8_t> encoded = encodeProbeFrame(decoded->type, decoded->payload);
        FUZZ_CHECK(std::equal(encoded.begin(), encoded.end(), bytes.begin(), bytes.end()));
    }
    for (std::size_t offset = 0; offset < decoded->payload.size() + 2; ++offset) {
        FUZZ_CHECK(payloadWord(*decoded, offset).has_value() == (offset + 2 <= decoded->payload.size()));
    }
}

std::vector<std::uint8_t> withChecksums(std::span<const std::uint8_t> bytes) {
    std::vector<std::uint8_t> out;
    std::size_t at = 0;
    while (at + probe_frame::kHeadSize <= bytes.size()) {
        const std::size_t length = std::size_t{bytes[at + 1]} | std::size_t{bytes[at + 2]} << 8;
        const std::size_t frameSize = probe_frame::kHeadSize + length;
        if (bytes[at] != probe_frame::kStartByte || length < probe_frame::kChecksumSize ||
            at + frameSize > bytes.size()) {
            // Not a frame start, or a frame the input does not hold whole.
            out.insert(out.end(), bytes.begin() + at, bytes.begin() + at + probe_frame::kHeadSize);
            at += probe_frame::kHeadSize;
            continue;
        }
        const std::size_t start = out.size();
        out.insert(out.end(), bytes.begin() + at,
                   bytes.begin() + at + frameSize - probe_frame::kChecksumSize);
        const std::uint32_t crc = bitwiseCrc32(std::span(out).subspan(start));
        for (int i = 0; i < 4; ++i) {
            out.push_back(static_cast<std::uint8_t>(crc >> (8 * i)));
        }
        at += frameSize;
    }
    out.insert(out.end(), bytes.begin() + at, bytes.end());
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The first byte picks how many bytes the driver hands out per read
    // (low four bits) and whether checksums are put right (top bit).
    const std::uint8_t control = size > 0 ? data[0] : 0;
    const std::span<const std::uint8_t> input(data + (size > 0 ? 1 : 0), size > 0 ? size - 1 : 0);
    const std::vector<std::uint8_t> copy =
        (control & 0x80U) != 0 ? withChecksums(input) : std::vector<std::uint8_t>(input.begin(), input.end());
    const std::span<const std::uint8_t> bytes(copy);

    // Four bytes at a time must not depend on where the span starts.
    for (std::size_t skip = 0; skip < std::min<std::size_t>(bytes.size(), 4); ++skip) {
        FUZZ_CHECK(crc32(bytes.subspan(skip)) == bitwiseCrc32(bytes.subspan(skip)));
    }
    checkDecoder(bytes);
    checkReader(bytes, 1U + control % 16U);
    return 0;
}
