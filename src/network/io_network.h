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
#include "options/locator.h"
#include "platform/socket.h"
#include "platform/wake_event.h"

// The resolver's answer record, from the system's socket headers.
struct addrinfo;

namespace kmio {

// The TCP device link ("network:HOST:PORT", "network:HOST" with a "port"
// option, or "network:sn:SERIAL[:PORT]" found through discovery: resolver
// answers those, resolveNetworkSerialNumber over a discovery cache in the
// library).
//
// open() connects to each resolved IPv4 address in turn, waiting at most
// "connect-timeout" milliseconds for each, and starts the receiving thread.
// The link does not frame or interpret the byte stream.
//
// Receiving thread, one pass at a time:
//  - waits up to 300 ms for the socket to become readable (or for close);
//  - readable with bytes pending: hands them to onReceive in blocks of at
//    most 1024 bytes;
//  - readable with nothing pending means the peer closed the connection:
//    onError gets KM_IO_ERR_LINK_LOST (7). The thread does not give up on its
//    own: every following pass finds the same state and reports 7 again,
//    without delay, until the application closes the device;
//  - a failed wait or receive reports 7 when it timed out, else
//    KM_IO_ERR_LINK_FAILED (8); a failed pending-bytes query reports 8.
//  - Without an onError callback, a failed receive is handed to onReceive
//    instead, with the receive call's result of -1 as its length. The length
//    parameter is a size_t, so the application sees SIZE_MAX (and the buffer
//    holds nothing valid). It is kept because the public header documents
//    it (KM_IO_Open), so applications without onError may test for that
//    length; changing it changes the interface. An application that wants
//    to tell failures apart registers onError.
//
// send() writes all bytes under the device mutex and never raises SIGPIPE;
// 0 bytes succeed without touching the socket. close() sets the stop flag and
// wakes the receiving thread, which shuts the socket down and closes it;
// close(true) therefore returns within a few milliseconds, even while a send
// is blocked (that send then fails with KM_IO_ERR_SEND_FAILED).
class IoNetwork final : public IoDevice {
public:
    IoNetwork(std::string locator, std::string options, void* userContext, KM_IO_ReceiveCallback onReceive,
              KM_IO_LinkErrorCallback onError, SerialNumberResolver resolver);
    ~IoNetwork() override;

    std::uint32_t open(std::shared_ptr<IoDevice> self) override;
    void close(bool wait) override;
    std::uint32_t send(const std::uint8_t* data, std::size_t length) override;
    // No property exists on this link: always KM_IO_ERR_UNKNOWN_PROPERTY, with
    // an empty text and *ioSize 0.
    std::uint32_t getProperty(const char* key, char* value, std::size_t* ioSize) override;

private:
    // What one wait of the receiving thread found.
    enum class Readiness { Idle, Readable, Failed };

    // open() without the translation of exceptions into result codes.
    std::uint32_t connectAndStart(std::shared_ptr<IoDevice> self);
    // The value "connect-timeout" has in the raw option text, else 5000.
    std::uint32_t connectTimeoutMs() const;
    void receiveLoop();
    // Ends the receiving thread's pass when the stop flag is set: shuts the
    // socket down (which also wakes a send blocked on a full buffer), then
    // closes it under the send mutex, so that no send can use a closed
    // handle. True when the thread must end.
    bool stopRequested();

    // Resolves host and port and connects to the first IPv4 TCP address that
    // accepts within timeoutMs; stores the connected, blocking socket.
    // KM_IO_OK, KM_IO_ERR_NOT_FOUND or KM_IO_ERR_OPEN_FAILED.
    std::uint32_t connectSocket(const std::string& host, std::uint16_t port, std::uint32_t timeoutMs);

    // Platform layer (io_network_posix.cpp, io_network_win32.cpp). Errors are
    // the platform's error numbers, for the two predicates below.
    //
    // Whether a resolver failure means that the name does not exist or
    // cannot be resolved now (the device is not there), rather than a
    // failure of our own.
    static bool isNameNotFound(int resolverError);
    // One address: a non-blocking connect that may take timeoutMs, then the
    // socket back in blocking mode with no other option touched. An invalid
    // socket when the address does not accept; creationFailed is set when
    // no socket could be made at all, as later addresses would fail alike.
    static Socket connectAddress(const addrinfo& address, std::uint32_t timeoutMs, bool& creationFailed);
    // Waits up to timeoutMs for the socket to become readable (a closed peer
    // counts, on every pass until close) or for wake_; runs on the receiving
    // thread only. Idle on time-out and when woken.
    Readiness waitReadable(int timeoutMs, int& error);
    bool pendingBytes(std::size_t& pending);
    // Result of the platform call: bytes moved, or negative with error set.
    std::ptrdiff_t receiveSome(std::uint8_t* buffer, std::size_t length, int& error);
    std::ptrdiff_t sendSome(const std::uint8_t* data, std::size_t length, int& error);
    static bool isTimedOut(int error);
    static bool isInterrupted(int error);

    SerialNumberResolver resolver_;
    std::mutex mutex_;  // serialises sends; guards closing socket_ against them
    ReceiverThread receiver_;
    // Not under mutex_: a send blocked on a peer that does not read holds the
    // mutex, and the receiving thread must still see the stop (and keep
    // receiving, which is what unblocks an echoing peer) without waiting for it.
    std::atomic<bool> stop_{false};
    Socket socket_;
    std::optional<WakeEvent> wake_;  // made by open(), so construction does no I/O
    // What the platform keeps beside the socket for waitReadable (on Windows
    // the socket's network-event object and whether the peer's close was
    // seen); the platform file defines it and makes it on first use.
    struct WaitState;
    struct WaitStateDeleter {
        void operator()(WaitState* state) const noexcept;
    };
    std::unique_ptr<WaitState, WaitStateDeleter> waitState_;
};

}  // namespace kmio
