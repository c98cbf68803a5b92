#include "serial/io_serial.h"

#include <utility>

#include "link/result_translation.h"
#include "options/locator.h"

namespace kmio {

IoSerial::~IoSerial() = default;

std::uint32_t IoSerial::open(std::shared_ptr<IoDevice> self) {
    return resultOf(OperationKind::Open, [&] { return openAndStart(std::move(self)); });
}

std::uint32_t IoSerial::openAndStart(std::shared_ptr<IoDevice> self) {
    // The locator comes first on this link: a bad locator gives
    // KM_IO_ERR_BAD_LOCATOR even when the options are bad too.
    std::string portName;
    if (parseSerialLocator(locator(), portName) != KM_IO_OK) {
        return KM_IO_ERR_BAD_LOCATOR;
    }
    const SerialOpenOptions options = SerialOpenOptions::parse(this->options());
    // There is no sensible default rate for an arbitrary port, so it must be given.
    if (options.baudrate == 0) {
        return KM_IO_ERR_BAD_OPTIONS;
    }
    stop_.emplace();
    if (const std::uint32_t result = openPort(portName, options); result != KM_IO_OK) {
        return result;
    }
    try {
        receiver_.start(std::move(self), [this] { receiveLoop(); });
    } catch (...) {
        // No thread: the port must not stay held.
        releasePort();
        throw;
    }
    return KM_IO_OK;
}

void IoSerial::close(bool wait) {
    // The stop event also wakes a send that waits for room in the port, so
    // that close never hangs behind a peer that stopped reading.
    receiver_.stop(wait, [this] {
        stopping_ = true;
        if (stop_) {
            stop_->signal();
        }
    });
}

std::uint32_t IoSerial::send(const std::uint8_t* data, std::size_t length) {
    if (length == 0) {
        return KM_IO_OK;
    }
    std::lock_guard lock(mutex_);
    if (!port_ || !stop_) {
        return KM_IO_ERR_SEND_FAILED;
    }
    return writeAll(data, length) ? KM_IO_OK : KM_IO_ERR_SEND_FAILED;
}

void IoSerial::releasePort() {
    std::lock_guard lock(mutex_);
    port_.reset();
}

std::uint32_t IoSerial::getProperty(const char*, char* value, std::size_t* ioSize) {
    // A serial port has no properties: every key reads as the empty text. A
    // zero capacity cannot hold even the terminating zero.
    const std::size_t capacity = *ioSize;
    *ioSize = 0;
    if (capacity == 0) {
        return KM_IO_ERR_BUFFER_TOO_SMALL;
    }
    value[0] = '\0';
    return KM_IO_OK;
}

}  // namespace kmio
