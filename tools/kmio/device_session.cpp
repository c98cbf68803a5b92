#include "device_session.h"

#include "result_text.h"

#include <kmio/kmio.h>
#include <cstdio>

namespace kmiotool {

DeviceSession::~DeviceSession() {
    close();
}

std::uint32_t DeviceSession::open(const std::string& options) {
    std::uint32_t code = KM_IO_Open(&handle_, locator_.c_str(), options.c_str(), this,
                                    &DeviceSession::onReceive, &DeviceSession::onLinkError);
    open_ = code == KM_IO_OK;
    return code;
}

std::uint32_t DeviceSession::send(const std::uint8_t* data, std::size_t length) {
    return KM_IO_Send(handle_, data, length);
}

void DeviceSession::close() {
    if (open_) {
        open_ = false;
        KM_IO_Close(handle_, 1);
    }
}

void DeviceSession::onReceive(void* context, const std::uint8_t* data, std::size_t length) {
    static_cast<DeviceSession*>(context)->receive(data, length);
}

void DeviceSession::onLinkError(void* context, std::uint32_t code) {
    static_cast<DeviceSession*>(context)->linkError(code);
}

void DeviceSession::receive(const std::uint8_t* data, std::size_t length) {
    bool written = false;
    if (hex_) {
        std::string text = dump_.format(data, length);
        written = ConsoleWait::writeOutput(text.data(), text.size());
    } else {
        written = ConsoleWait::writeOutput(data, length);
    }
    if (!written && !failed_.exchange(true)) {
        std::fprintf(stderr, "kmio: cannot write received data to stdout\n");
        wait_.notifyEnd();
    }
}

void DeviceSession::linkError(std::uint32_t code) {
    if (code != lastError_) {
        lastError_ = code;
        reportFailure("link error on " + locator_, code);
    }
    failed_.store(true);
    if (code == KM_IO_ERR_LINK_LOST || code == KM_IO_ERR_LINK_FAILED) {
        wait_.notifyEnd();
    }
}

}  // namespace kmiotool
