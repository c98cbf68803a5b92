#include "usb/io_ftdi.h"
#include "options/list_filter.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "link/result_translation.h"
#include "options/locator.h"
#include "options/option_list.h"
#include "options/options_error.h"
#include "options/text_output.h"
#include "usb/chip_setup.h"
#include "usb/d2xx_binding.h"
#include "usb/usb_enumeration.h"
#include "usb/usb_locator.h"

namespace kmio {

namespace {

using SteadyClock = std::chrono::steady_clock;
using Wake = FtdiReceiveEvent::Wake;

// The largest count handed to one FT_Write.
constexpr std::size_t kMaxWriteChunk = std::size_t{1} << 30;

// "ftdi-flow-control" values; anything else is a bad option.
std::optional<std::uint16_t> flowControlMode(const std::string& name) {
    if (name == "none") {
        return d2xx::kFlowNone;
    }
    if (name == "rtscts") {
        return d2xx::kFlowRtsCts;
    }
    if (name == "dtrdsr") {
        return d2xx::kFlowDtrDsr;
    }
    return std::nullopt;
}

std::uint32_t linkErrorOf(d2xx::FT_STATUS status) {
    return status == d2xx::kIoError ? KM_IO_ERR_LINK_LOST : KM_IO_ERR_LINK_FAILED;
}

bool namedIn(const std::vector<std::string>& names, const UsbDeviceEntry& entry) {
    const std::string description = entry.deviceDescription().value_or(entry.description);
    return admits(names, description);
}

// A dual-channel chip is also found by the serial number that enumeration
// shows for it (without the channel letter), which names its channel A.
bool hasSerialNumber(const UsbDeviceEntry& entry, const std::string& serial) {
    return entry.serialNumber == serial ||
           (entry.dualChannel() && entry.deviceDescription() && entry.deviceSerialNumber() == serial);
}

}  // namespace

IoFtdi::IoFtdi(std::string locator, std::string options, void* userContext, KM_IO_ReceiveCallback onReceive,
               KM_IO_LinkErrorCallback onError, UsbDeviceCache& cache)
    : IoDevice(std::move(locator), std::move(options), userContext, onReceive, onError), cache_(cache) {}

// The chip member closes the chip before the event member is destroyed.
IoFtdi::~IoFtdi() = default;

std::uint32_t IoFtdi::open(std::shared_ptr<IoDevice> self) {
    const std::uint32_t result = resultOf(OperationKind::Open, [&]() -> std::uint32_t {
        if (!cache_.binding().load()) {
            return KM_IO_ERR_DRIVER_UNAVAILABLE;
        }
        const UsbOpenOptions options = UsbOpenOptions::parse(this->options());
        if ((options.ftdiFlowControl && !flowControlMode(*options.ftdiFlowControl)) ||
            options.ftdiLatency > 255) {
            return KM_IO_ERR_BAD_OPTIONS;
        }
        txTimeoutMs_ = options.txTimeout;
        healthCheckMs_ = options.healthCheck;

        if (const std::uint32_t found = findAndOpen(options); found != KM_IO_OK) {
            return found;
        }
        const D2xxEntryPoints& api = cache_.binding().api();
        std::vector<std::uint8_t> userArea;
        if (readUserArea(api, chip_.get(), userArea) != d2xx::kOk) {
            return KM_IO_ERR_OPEN_FAILED;
        }
        const std::string description = device_.deviceDescription().value_or(device_.description);
        std::optional<LinkProfile> profile =
            deriveLinkProfile(userArea, description, device_.type, device_.highSpeed());
        if (!profile) {
            return KM_IO_ERR_BAD_OPTIONS;
        }
        profile->baudRate = options.baudrate.value_or(profile->baudRate);
        if (options.ftdiFlowControl) {
            profile->flowControl = *flowControlMode(*options.ftdiFlowControl);
        }
        profile_ = *profile;
        if (const std::uint32_t configured = configure(options, profile_); configured != KM_IO_OK) {
            return configured;
        }
        if (!createReceiveEvent() || api.FT_SetEventNotification(chip_.get(), d2xx::kEventRxChar,
                                                                 event_->driverArgument()) != d2xx::kOk) {
            return KM_IO_ERR_OPEN_FAILED;
        }
        receiver_.start(std::move(self), [this] { receiveLoop(); });
        return KM_IO_OK;
    });
    // Whatever failed after the chip was opened, the chip does not stay open.
    if (result != KM_IO_OK) {
        chip_.reset();
    }
    return result;
}

std::uint32_t IoFtdi::findAndOpen(const UsbOpenOptions& options) {
    const std::optional<UsbDeviceChoice> choice = parseUsbLocator(locator());
    if (!choice) {
        return KM_IO_ERR_BAD_LOCATOR;
    }
    const D2xxEntryPoints& api = cache_.binding().api();
    std::lock_guard lock(cache_.mutex());

    std::string serial = choice->text;
    if (choice->by == UsbDeviceChoice::By::ChipId) {
        if (choice->text == "0") {
            return KM_IO_ERR_NOT_FOUND;
        }
        std::string request = "include-id\ninclude-sn";
        for (const std::string& name : options.productName) {
            request += "\nproduct-name " + name;
        }
        std::string listing;
        if (olderUsbListLocked(request, cache_, listing) != KM_IO_OK) {
            return KM_IO_ERR_OPEN_FAILED;
        }
        if (const std::uint32_t r = serialNumberOfChipId(listing, choice->text, serial); r != KM_IO_OK) {
            return r;
        }
    }

    std::vector<UsbDeviceEntry> entries;
    if (readDeviceList(api, entries) != d2xx::kOk) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    std::optional<UsbDeviceEntry> found;
    std::uint64_t position = 0;
    for (UsbDeviceEntry& entry : entries) {
        if (entry.opened() || !namedIn(options.productName, entry)) {
            continue;
        }
        const bool match = choice->by == UsbDeviceChoice::By::Position ? position++ == choice->position
                                                                       : hasSerialNumber(entry, serial);
        if (match) {
            found = std::move(entry);
            break;
        }
    }
    if (!found) {
        return KM_IO_ERR_NOT_FOUND;
    }
    d2xx::FT_HANDLE raw = nullptr;
    std::string openBy = found->serialNumber;
    if (api.FT_OpenEx(openBy.data(), d2xx::kOpenBySerialNumber, &raw) != d2xx::kOk) {
        return KM_IO_ERR_OPEN_FAILED;
    }
    chip_ = FtdiHandle(api, raw);
    device_ = std::move(*found);
    return KM_IO_OK;
}

std::uint32_t IoFtdi::configure(const UsbOpenOptions& options, const LinkProfile& profile) {
    using namespace d2xx;
    const D2xxEntryPoints& api = cache_.binding().api();
    const FT_HANDLE h = chip_.get();
    const bool fifoChip = profile.synchronousFifo && device_.type == kDevice2232H;
    if (!(fifoChip && device_.highSpeed()) && profile.baudRate != 0) {
        const FT_STATUS status = api.FT_SetBaudRate(h, profile.baudRate);
        if (status == kInvalidBaudRate) {
            return KM_IO_ERR_BAD_OPTIONS;
        }
        if (status != kOk) {
            return KM_IO_ERR_OPEN_FAILED;
        }
    }
    bool ok = api.FT_SetDataCharacteristics(h, kBits8, kStopBits1, kParityNone) == kOk &&
              api.FT_SetFlowControl(h, profile.flowControl, 0, 0) == kOk &&
              api.FT_SetTimeouts(h, options.rxTimeout, options.txTimeout) == kOk &&
              api.FT_SetLatencyTimer(h, static_cast<std::uint8_t>(options.ftdiLatency)) == kOk;
    if (ok && fifoChip) {
        ok = enterSynchronousFifo(api, h) &&
             api.FT_SetUSBParameters(h, kUsbTransferSize, kUsbTransferSize) == kOk;
    }
    ok = ok && api.FT_Purge(h, kPurgeRx | kPurgeTx) == kOk;
    return ok ? KM_IO_OK : KM_IO_ERR_OPEN_FAILED;
}

bool IoFtdi::createReceiveEvent() {
    try {
        event_ = std::make_unique<FtdiReceiveEvent>();
        return true;
    } catch (const std::system_error&) {
        return false;
    }
}

void IoFtdi::requestStop() {
    if (event_) {
        event_->requestStop();
    }
}

void IoFtdi::close(bool wait) {
    receiver_.stop(wait, [this] {
        stopping_.store(true);
        requestStop();
    });
}

void IoFtdi::receiveLoop() {
    const D2xxEntryPoints& api = cache_.binding().api();
    const d2xx::FT_HANDLE h = chip_.get();
    std::vector<std::uint8_t> buffer(kReadBatchSize);
    while (!stopping_.load()) {
        std::uint32_t queued = 0;
        std::uint32_t sending = 0;
        std::uint32_t events = 0;
        if (const d2xx::FT_STATUS status = api.FT_GetStatus(h, &queued, &sending, &events);
            status != d2xx::kOk) {
            reportAndIdle(linkErrorOf(status));
            break;
        }
        if (queued == 0) {
            const Wake wake = event_->wait(healthCheckMs_);
            if (wake == Wake::Stopped) {
                break;
            }
            if (wake == Wake::Failed) {
                reportAndIdle(KM_IO_ERR_LINK_FAILED);
                break;
            }
            continue;  // received or health check: look at the queue again
        }
        const auto wanted = static_cast<std::uint32_t>(std::min<std::size_t>(queued, buffer.size()));
        std::uint32_t read = 0;
        if (const d2xx::FT_STATUS status = api.FT_Read(h, buffer.data(), wanted, &read);
            status != d2xx::kOk) {
            reportAndIdle(linkErrorOf(status));
            break;
        }
        if (read > wanted) {
            reportAndIdle(KM_IO_ERR_LINK_FAILED);
            break;
        }
        deliverInBlocks(buffer.data(), read);
    }
    // The thread alone closes the chip; sends and property reads see it gone.
    std::lock_guard lock(mutex_);
    chip_.reset();
}

void IoFtdi::reportAndIdle(std::uint32_t code) {
    reportLinkError(code);
    for (;;) {
        const Wake wake = event_->wait(0);
        if (wake == Wake::Stopped) {
            return;
        }
        if (wake == Wake::Failed) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
}

std::uint32_t IoFtdi::send(const std::uint8_t* data, std::size_t length) {
    if (length == 0) {
        return KM_IO_OK;
    }
    std::lock_guard lock(mutex_);
    if (!chip_) {
        return KM_IO_ERR_SEND_FAILED;
    }
    const D2xxEntryPoints& api = cache_.binding().api();
    const auto start = SteadyClock::now();
    const auto limit = std::chrono::milliseconds(txTimeoutMs_);
    std::size_t sent = 0;
    while (sent < length) {
        const auto chunk = static_cast<std::uint32_t>(std::min(length - sent, kMaxWriteChunk));
        std::uint32_t written = 0;
        // The driver's prototype takes a non-const buffer; it does not write to it.
        const d2xx::FT_STATUS status =
            api.FT_Write(chip_.get(), const_cast<std::uint8_t*>(data + sent), chunk, &written);
        if (status == d2xx::kIoError) {
            return KM_IO_ERR_LINK_LOST;
        }
        if (status != d2xx::kOk || written > chunk) {
            return KM_IO_ERR_SEND_FAILED;
        }
        sent += written;
        if (sent < length && SteadyClock::now() - start > limit) {
            return KM_IO_ERR_SEND_FAILED;
        }
        if (written == 0) {
            // The driver took nothing without waiting for its own time-out;
            // pause instead of asking again at once.
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return KM_IO_OK;
}

std::uint32_t IoFtdi::getProperty(const char* key, char* value, std::size_t* ioSize) {
    if (key == nullptr || std::strcmp(key, "ftdi-id") != 0) {
        return KM_IO_ERR_UNKNOWN_PROPERTY;
    }
    std::uint32_t chipId = 0;
    {
        std::lock_guard lock(mutex_);
        if (!chip_ || cache_.binding().chipIdFromHandle(chip_.get(), chipId) != d2xx::kOk) {
            return KM_IO_ERR_NOT_SUPPORTED;
        }
    }
    if (ioSize == nullptr) {
        return KM_IO_ERR_BUFFER_TOO_SMALL;
    }
    if (value == nullptr) {
        *ioSize = 0;  // no buffer holds nothing: the size needed is reported
    }
    return copyTextOut(std::to_string(chipId), value, ioSize);
}

}  // namespace kmio
