#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "link/io_device.h"
#include "link/receiver_thread.h"
#include "options/option_sets.h"
#include "platform/unique_fd.h"
#include "platform/wake_event.h"

namespace kmio {

// A serial port ("serial:" followed by a device path, or a bare name taken
// under /dev/). The port is held exclusively while open, configured raw 8N1
// at the requested rate, and read by a thread of its own that hands every
// block of at most 1024 bytes to the application.
class IoSerial : public IoDevice {
public:
    static constexpr std::size_t kReadBatchSize = 64 * 1024;

    using IoDevice::IoDevice;
    ~IoSerial() override;

    std::uint32_t open(std::shared_ptr<IoDevice> self) override;
    void close(bool wait) override;
    std::uint32_t send(const std::uint8_t* data, std::size_t length) override;
    std::uint32_t getProperty(const char* key, char* value, std::size_t* ioSize) override;

private:
    // open() without the translation of exceptions into result codes.
    std::uint32_t openAndStart(std::shared_ptr<IoDevice> self);

    // Opens, locks and configures the port; KM_IO_OK or KM_IO_ERR_OPEN_FAILED.
    // On failure nothing stays open.
    std::uint32_t openPort(const std::string& portName, const SerialOpenOptions& options);

    // The receiving thread's body: runs until the stop event, then releases the port.
    void receiveLoop();

    // Releases the port; called by the receiving thread as it ends.
    void releasePort();

    std::mutex mutex_;  // serialises sends and the release of the port
    ReceiverThread receiver_;
    UniqueFd port_;
    std::optional<WakeEvent> stop_;
    std::atomic<bool> stopping_{false};  // lets a burst of reads end early on close
};

}  // namespace kmio
