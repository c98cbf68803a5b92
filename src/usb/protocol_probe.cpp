#include "usb/protocol_probe.h"
#include "usb/chip_setup.h"

#include <algorithm>
#include <array>
#include <optional>
#include <thread>

#include "kmio/kmio.h"
#include "usb/ftdi_handle.h"
#include "usb/link_profile.h"
#include "usb/probe_frame.h"
#include "usb/probe_frame_reader.h"
#include "usb/usb_device_entry.h"

namespace kmio {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::array<std::uint8_t, 6> kQuery{'x', 'D', 'q', 'P', 0, 0};
constexpr std::uint16_t kProtocolOfRow146 = 146;
constexpr std::uint16_t kProtocolOfRow147 = 147;
constexpr std::uint16_t kProtocolDetect = 180;
constexpr std::uint16_t kDetectMarker = 32766;
constexpr std::uint32_t kProbeReadTimeoutMs = 500;
constexpr std::uint32_t kProbeWriteTimeoutMs = 100;
constexpr std::uint8_t kProbeLatencyMs = 2;
bool configure(const D2xxEntryPoints& api, d2xx::FT_HANDLE h, const LinkProfile& profile) {
    using namespace d2xx;
    if (profile.baudRate != 0 && api.FT_SetBaudRate(h, profile.baudRate) != kOk) {
        return false;
    }
    if (profile.synchronousFifo && !enterSynchronousFifo(api, h)) {
        return false;
    }
    return api.FT_SetUSBParameters(h, kUsbTransferSize, kUsbTransferSize) == kOk &&
           api.FT_SetDataCharacteristics(h, kBits8, kStopBits1, kParityNone) == kOk &&
           api.FT_SetFlowControl(h, profile.flowControl, 0, 0) == kOk &&
           api.FT_SetTimeouts(h, kProbeReadTimeoutMs, kProbeWriteTimeoutMs) == kOk &&
           api.FT_SetLatencyTimer(h, kProbeLatencyMs) == kOk && api.FT_Purge(h, kPurgeRx | kPurgeTx) == kOk;
}

bool sendQuery(const D2xxEntryPoints& api, d2xx::FT_HANDLE h) {
    std::vector<std::uint8_t> frame = encodeProbeFrame(probe_frame::kTypeRequest, kQuery);
    std::uint32_t written = 0;
    const auto size = static_cast<std::uint32_t>(frame.size());
    return api.FT_Write(h, frame.data(), size, &written) == d2xx::kOk && written == size;
}

bool isReplyToQuery(const ProbeFrame& frame) {
    return frame.payload.size() >= kQuery.size() &&
           std::equal(kQuery.begin(), kQuery.end(), frame.payload.begin());
}

void addOnce(std::vector<std::uint16_t>& ids, std::uint16_t id) {
    if (std::find(ids.begin(), ids.end(), id) == ids.end()) {
        ids.push_back(id);
    }
}

ProbeOutcome failed(std::uint32_t result) {
    return ProbeOutcome{result, {}};
}

}  // namespace

ProbeOutcome probeProtocolIds(const D2xxEntryPoints& api, int index, const UsbDeviceEntry& entry,
                              std::string_view description, std::chrono::milliseconds replyLimit) {
    const ProductNameRow row = productNameRow(description);
    if (row == ProductNameRow::Serial500kProtocol146) {
        return ProbeOutcome{KM_IO_OK, {kProtocolOfRow146}};
    }
    if (row == ProductNameRow::Serial500kProtocol147) {
        return ProbeOutcome{KM_IO_OK, {kProtocolOfRow147}};
    }

    d2xx::FT_HANDLE raw = nullptr;
    if (api.FT_Open(index, &raw) != d2xx::kOk) {
        return failed(KM_IO_ERR_OPEN_FAILED);
    }
    const FtdiHandle handle(api, raw);
    std::vector<std::uint8_t> userArea;
    if (readUserArea(api, handle.get(), userArea) != d2xx::kOk) {
        return failed(KM_IO_ERR_OPEN_FAILED);
    }
    const std::optional<LinkProfile> profile =
        deriveLinkProfile(userArea, description, entry.type, entry.highSpeed());
    if (!profile) {
        return failed(KM_IO_ERR_BAD_OPTIONS);
    }
    if (!configure(api, handle.get(), *profile) || !sendQuery(api, handle.get())) {
        return failed(KM_IO_ERR_OPEN_FAILED);
    }

    ProbeFrameReader reader(api, handle.get(), SteadyClock::now() + replyLimit);
    ProbeFrame frame;
    do {
        if (reader.next(frame) != ProbeFrameReader::Result::Done) {
            return failed(KM_IO_ERR_OPEN_FAILED);  // no reply in time
        }
    } while (frame.type != probe_frame::kTypeReply);
    if (!isReplyToQuery(frame)) {
        return failed(KM_IO_ERR_OPEN_FAILED);
    }

    ProbeOutcome outcome;
    const bool detectChip = entry.dualChannel() && row == ProductNameRow::ProbeDetect;
    for (;;) {
        const ProbeFrameReader::Result r = reader.next(frame);
        if (r == ProbeFrameReader::Result::TimedOut) {
            break;  // a device that lists nothing keeps what it said so far
        }
        if (r == ProbeFrameReader::Result::Failed) {
            return failed(KM_IO_ERR_OPEN_FAILED);
        }
        if (frame.type == probe_frame::kTypeStatus) {
            const std::optional<std::uint16_t> value = payloadWord(frame, 0);
            if (!value) {
                return failed(KM_IO_ERR_OPEN_FAILED);
            }
            if (*value == kDetectMarker && detectChip) {
                addOnce(outcome.protocolIds, kProtocolDetect);
            }
        } else if (frame.type == probe_frame::kTypeProtocolIds) {
            // A count larger than the payload holds yields the ids present.
            const std::uint16_t count = payloadWord(frame, 0).value_or(0);
            for (std::size_t i = 0; i < count; ++i) {
                const std::optional<std::uint16_t> id = payloadWord(frame, 2 + 2 * i);
                if (!id) {
                    break;
                }
                addOnce(outcome.protocolIds, *id);
            }
            break;
        }
    }
    outcome.result = KM_IO_OK;
    return outcome;
}

}  // namespace kmio
