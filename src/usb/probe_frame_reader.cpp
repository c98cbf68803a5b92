#include "usb/probe_frame_reader.h"

#include <array>
#include <optional>
#include <thread>
#include <vector>

#include "usb/d2xx_binding.h"

namespace kmio {

namespace {

// How often the receive queue is looked at while a frame is incomplete.
constexpr std::chrono::milliseconds kPollInterval{1};

}  // namespace

ProbeFrameReader::Result ProbeFrameReader::next(ProbeFrame& frame) {
    for (;;) {
        std::array<std::uint8_t, probe_frame::kHeadSize> head{};
        if (const Result r = readExactly(head.data(), head.size()); r != Result::Done) {
            return r;
        }
        const std::optional<std::size_t> length = frameLengthFromHead(head);
        if (!length) {
            continue;  // not a frame start: these three bytes are dropped
        }
        std::vector<std::uint8_t> rest(*length);
        if (const Result r = readExactly(rest.data(), rest.size()); r != Result::Done) {
            return r;
        }
        if (std::optional<ProbeFrame> decoded = decodeProbeFrame(head, rest)) {
            frame = std::move(*decoded);
            return Result::Done;
        }
    }
}

ProbeFrameReader::Result ProbeFrameReader::readExactly(std::uint8_t* into, std::size_t count) {
    std::size_t got = 0;
    while (got < count) {
        std::uint32_t queued = 0;
        std::uint32_t sending = 0;
        std::uint32_t events = 0;
        if (api_.FT_GetStatus(handle_, &queued, &sending, &events) != d2xx::kOk) {
            return Result::Failed;
        }
        if (queued < count - got) {
            if (std::chrono::steady_clock::now() >= deadline_) {
                return Result::TimedOut;
            }
            std::this_thread::sleep_for(kPollInterval);
            continue;
        }
        std::uint32_t read = 0;
        const auto wanted = static_cast<std::uint32_t>(count - got);
        if (api_.FT_Read(handle_, into + got, wanted, &read) != d2xx::kOk || read > wanted) {
            return Result::Failed;
        }
        got += read;
    }
    return Result::Done;
}

}  // namespace kmio
