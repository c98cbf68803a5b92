#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "kmio/kmio.h"

namespace kmio {

// The abstract device behind every handle. It keeps what every link needs from
// KM_IO_Open (locator, options, the application's callbacks) and fixes the five
// operations that the device table calls. Each link (IoSerial, IoNetwork,
// IoFtdi) owns its own handles, mutex and receiving thread.
//
// Receiving-thread contract shared by all links: open() receives a shared
// reference to the device and hands it to the receiving thread, which keeps
// the device alive until the thread ends. close(false) detaches the thread and
// then asks it to stop; close(true) asks it to stop and joins it, except on the
// receiving thread itself (a callback closing its own device), where it
// detaches instead (ReceiverThread::stop).
class IoDevice {
public:
    IoDevice(std::string locator, std::string options, void* userContext, KM_IO_ReceiveCallback onReceive,
             KM_IO_LinkErrorCallback onError);
    IoDevice(const IoDevice&) = delete;
    IoDevice& operator=(const IoDevice&) = delete;
    virtual ~IoDevice();

    // Parses the options and the locator, opens the link and starts the
    // receiving thread. Returns a KM_IO_* result code; never throws.
    virtual std::uint32_t open(std::shared_ptr<IoDevice> self) = 0;

    // Asks the receiving thread to stop, joining it when wait is true (see
    // the class comment for a close from the thread itself). Throws nothing
    // the caller could act on for a device that open() left running.
    virtual void close(bool wait) = 0;

    // Writes all bytes; serialised with other sends of the same device.
    virtual std::uint32_t send(const std::uint8_t* data, std::size_t length) = 0;

    // Reads a link property under the out-buffer convention.
    virtual std::uint32_t getProperty(const char* key, char* value, std::size_t* ioSize) = 0;

    std::uint32_t interfaceType() const noexcept { return interfaceType_; }
    const std::string& locator() const noexcept { return locator_; }
    const std::string& options() const noexcept { return options_; }

protected:
    // Hands a block of received bytes to the application.
    void deliver(const std::uint8_t* data, std::size_t length) const {
        onReceive_(userContext_, data, length);
    }

    // Reports a link failure (7 or 8) when the application gave an error callback.
    void reportLinkError(std::uint32_t code) const {
        if (onError_ != nullptr) {
            onError_(userContext_, code);
        }
    }

    bool hasErrorCallback() const noexcept { return onError_ != nullptr; }

    // The application sees received bytes in blocks of at most this size,
    // whatever the link reads at once.
    static constexpr std::size_t kReceiveBlockSize = 1024;

    // Links read in larger batches (a fraction of the system calls) and hand
    // them over block by block: the blocks are the ones a read of at most
    // kReceiveBlockSize per call would give.
    void deliverInBlocks(const std::uint8_t* data, std::size_t length) const {
        for (std::size_t at = 0; at < length; at += kReceiveBlockSize) {
            deliver(data + at, std::min(kReceiveBlockSize, length - at));
        }
    }

private:
    std::uint32_t interfaceType_ = KM_IO_IFACE_NONE;
    std::string locator_;
    std::string options_;
    void* userContext_;
    KM_IO_ReceiveCallback onReceive_;
    KM_IO_LinkErrorCallback onError_;
};

}  // namespace kmio
