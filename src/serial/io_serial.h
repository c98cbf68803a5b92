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
#include "platform/wake_event.h"

namespace kmio {

// A serial port ("serial:" followed by the port's name: a device path or a
// bare name taken under /dev/ on Linux, COM3 and the like on Windows). The
// port is held exclusively while open, configured raw 8N1 at the requested
// rate, and read by a thread of its own that hands every block of at most
// 1024 bytes to the application.
class IoSerial : public IoDevice {
public:
    static constexpr std::size_t kReadBatchSize = 64 * 1024;

    using IoDevice::IoDevice;
    ~IoSerial() override;

    std::uint32_t open(std::shared_ptr<IoDevice> self) override;
    void close(bool wait) override;
    // Writes all bytes under mutex_. KM_IO_OK, or KM_IO_ERR_SEND_FAILED when
    // the port is not open or writeAll fails. Zero bytes succeed without
    // touching the port.
    std::uint32_t send(const std::uint8_t* data, std::size_t length) override;
    std::uint32_t getProperty(const char* key, char* value, std::size_t* ioSize) override;

private:
    // open() without the translation of exceptions into result codes.
    std::uint32_t openAndStart(std::shared_ptr<IoDevice> self);

    // Platform layer (io_serial_posix.cpp, io_serial_win32.cpp). Port is the
    // open port with whatever the platform needs beside its handle
    // (overlapped records, their events); the platform file defines it and
    // PortDeleter, which closes it.
    //
    // openPort opens portName for exclusive use (a port another program holds
    // fails), sets raw 8 data bits, no parity, 1 stop bit at
    // options.baudrate (a rate the driver refuses fails) with XON/XOFF flow
    // control in both directions when options.xonxoff is set, and stores the
    // port in port_. KM_IO_OK or KM_IO_ERR_OPEN_FAILED; on failure nothing
    // stays open. stop_ exists before it is called.
    //
    // receiveLoop is the receiving thread's body. It waits for the stop
    // event and the port together, without a time limit, and hands what
    // arrives to deliverInBlocks (blocks of at most 1024 bytes, in order).
    // A receive-side failure (read error, hang-up, a broken wait) reports
    // KM_IO_ERR_LINK_FAILED through reportLinkError; after a failure that
    // would repeat at once it waits only for the stop event, so that it
    // neither spins nor floods the application. When stop_ is signalled it
    // calls releasePort and returns; no callback follows the stop.
    //
    // writeAll writes length bytes (at least one) to the open port; send
    // calls it under mutex_ with port_ and stop_ in place. It waits without a
    // time limit while the port's output queue is full. False when a write
    // fails or stop_ is signalled while it waits (close abandons the rest of
    // the data).
    struct Port;
    struct PortDeleter {
        void operator()(Port* port) const noexcept;
    };

    std::uint32_t openPort(const std::string& portName, const SerialOpenOptions& options);
    void receiveLoop();
    bool writeAll(const std::uint8_t* data, std::size_t length);

    // Closes the port under mutex_ (so that no send uses a closed handle)
    // and leaves port_ empty; safe to call when nothing is open. Called by
    // the receiving thread as it ends, and by open when the thread could not
    // be started.
    void releasePort();

    std::mutex mutex_;  // serialises sends and the release of the port
    ReceiverThread receiver_;
    std::unique_ptr<Port, PortDeleter> port_;
    std::optional<WakeEvent> stop_;
    std::atomic<bool> stopping_{false};  // lets a burst of reads end early on close
};

}  // namespace kmio
