#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "link/io_device.h"
#include "link/receiver_thread.h"
#include "options/option_sets.h"
#include "usb/ftdi_handle.h"
#include "usb/ftdi_receive_event.h"
#include "usb/link_profile.h"
#include "usb/usb_device_cache.h"
#include "usb/usb_device_entry.h"

namespace kmio {

// A USB device behind an FTDI chip, through the D2XX driver: "usb:sn:SERIAL",
// "usb:id:CHIPID", or "usb:N", the N-th (from 0) device not open by any
// program.
//
// open() loads the driver (KM_IO_ERR_DRIVER_UNAVAILABLE when it cannot),
// finds the chip under the USB mutex (a fresh driver list for every search;
// "usb:id:" goes through the older USB listing), opens it by serial number,
// derives the link profile from its EEPROM user area and configures it:
// baud rate (the driver refusing the rate gives KM_IO_ERR_BAD_OPTIONS), 8N1,
// flow control, time-outs, latency, synchronous FIFO on a type-6 chip, purge;
// then it sets the driver's receive event and starts the receive thread. Any
// failure after the chip is open closes it again.
//
// Receive thread: asks FT_GetStatus how many bytes wait; with none it waits
// for the receive event at most "health-check" ms (0: without limit), so a
// vanished chip shows up as a failing FT_GetStatus within one period. Bytes
// are read in batches of up to 64 KiB and handed to onReceive in blocks of at
// most 1024 bytes. A failing driver call is reported once, as
// KM_IO_ERR_LINK_LOST when the driver says I/O error (4, which is also how an
// unplugged chip answers) and KM_IO_ERR_LINK_FAILED otherwise; the thread
// then only waits for close. The thread alone reads from the chip and it
// closes the chip when it ends.
//
// send() writes under the device mutex within "tx-timeout" ms:
// KM_IO_ERR_LINK_LOST on the driver's I/O error, KM_IO_ERR_SEND_FAILED on any
// other failure or when time runs out. 0 bytes succeed without a driver call.
//
// close() requests the stop through the receive thread's wait (on Linux a
// flag under the receive event's lock and a signal, on Windows a stop event
// waited together with the receive event), so the thread ends within
// milliseconds whatever "health-check" is.
class IoFtdi final : public IoDevice {
public:
    // The cache brings the driver binding and the USB mutex with it.
    IoFtdi(std::string locator, std::string options, void* userContext, KM_IO_ReceiveCallback onReceive,
           KM_IO_LinkErrorCallback onError, UsbDeviceCache& cache);
    ~IoFtdi() override;

    std::uint32_t open(std::shared_ptr<IoDevice> self) override;
    void close(bool wait) override;
    std::uint32_t send(const std::uint8_t* data, std::size_t length) override;
    // "ftdi-id": the chip id in decimal. KM_IO_ERR_NOT_SUPPORTED when it
    // cannot be read, KM_IO_ERR_UNKNOWN_PROPERTY for any other key (or a
    // null key), KM_IO_ERR_BUFFER_TOO_SMALL under the out-buffer convention.
    std::uint32_t getProperty(const char* key, char* value, std::size_t* ioSize) override;

    // Batch size of the receive thread's reads.
    static constexpr std::size_t kReadBatchSize = 64 * 1024;

private:
    // Finds the device under the USB mutex and opens it. KM_IO_OK, or the
    // result code of the failed step.
    std::uint32_t findAndOpen(const UsbOpenOptions& options);
    // Applies the configuration calls of the open sequence to the open chip.
    std::uint32_t configure(const UsbOpenOptions& options, const LinkProfile& profile);
    void receiveLoop();
    // Reports a link failure, then waits only for the stop request.
    void reportAndIdle(std::uint32_t code);

    // Makes event_; false when the system refuses. Called once, before
    // notification is set.
    bool createReceiveEvent();
    // Marks the stop as requested on event_ and wakes the receive thread;
    // nothing when the event was never made.
    void requestStop();

    UsbDeviceCache& cache_;
    std::mutex mutex_;  // serialises sends, property reads and closing the chip
    ReceiverThread receiver_;
    std::atomic<bool> stopping_{false};
    // Declared before the handle so that the chip is closed before the event
    // is destroyed, whatever path the object takes.
    std::unique_ptr<FtdiReceiveEvent> event_;
    FtdiHandle chip_;
    UsbDeviceEntry device_;  // the list entry of the chip that was opened
    LinkProfile profile_;
    std::uint32_t txTimeoutMs_ = 1000;
    std::uint32_t healthCheckMs_ = 250;
};

}  // namespace kmio
