#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "platform/socket.h"

namespace kmiosim {

// The socket calls of the simulator, with one shape on every system
// (sim_net_linux.cpp, sim_net_win32.cpp). Addresses and ports are in host
// order. Functions that set something up throw std::runtime_error with what
// failed and the system's text; the ones on the data path report instead,
// since a simulator logs a lost datagram and goes on.

// What a poll entry waits for and what it found.
inline constexpr unsigned kReadable = 1;
inline constexpr unsigned kWritable = 2;
inline constexpr unsigned kBroken = 4;  // hang-up or error

struct PollEntry {
    kmio::Socket::Native handle;
    unsigned wanted;
    unsigned ready;
};

// Waits up to timeoutMs (negative: no limit) until an entry is ready and
// fills every entry's ready bits. A signal ends the wait with nothing ready.
void pollSockets(std::vector<PollEntry>& entries, int timeoutMs);

// The discovery sockets of an interface with address A. Receivers are
// non-blocking; the sender blocks while its buffer is full, which paces a
// burst of replies instead of losing it.
kmio::Socket broadcastReceiver(std::uint32_t broadcastAddress, std::uint16_t port);
kmio::Socket multicastReceiver(std::uint32_t group, std::uint16_t port, std::uint32_t interfaceAddress);
kmio::Socket datagramSender(std::uint32_t interfaceAddress);

// One datagram: its size, or negative when none is waiting. The sender's
// address and port are filled in.
std::ptrdiff_t receiveDatagram(const kmio::Socket& socket, std::span<std::uint8_t> buffer,
                               std::uint32_t& from, std::uint16_t& fromPort);
// 0, or the system's error number.
int sendDatagram(const kmio::Socket& socket, std::uint32_t address, std::uint16_t port,
                 std::span<const std::uint8_t> datagram);

// A non-blocking TCP listener on address:port.
kmio::Socket tcpListener(std::uint32_t address, std::uint16_t port);
// The next pending connection, non-blocking, or an invalid socket.
kmio::Socket acceptConnection(const kmio::Socket& listener, std::uint32_t& address, std::uint16_t& port);

// Stream I/O on a non-blocking socket: bytes moved, 0 when the peer closed
// (receive only), kWouldBlock, or kStreamFailed.
inline constexpr std::ptrdiff_t kWouldBlock = -1;
inline constexpr std::ptrdiff_t kStreamFailed = -2;
std::ptrdiff_t receiveStream(const kmio::Socket& socket, std::span<std::uint8_t> buffer);
std::ptrdiff_t sendStream(const kmio::Socket& socket, std::span<const std::uint8_t> data);

// Ctrl-C, and SIGTERM on POSIX, as something the poll loop sees: a handle to
// poll for reading where the system has one, else a limit on each wait after
// which the loop asks taken().
class StopRequest {
public:
    StopRequest();
    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;
    ~StopRequest();

    kmio::Socket::Native pollHandle() const;  // Socket::kInvalid when there is none
    int pollLimitMs() const;                  // negative: no limit needed
    // The signal or console event that asked to stop, or 0 when none did.
    int taken();

private:
    kmio::Socket::Native handle_ = kmio::Socket::kInvalid;
};

// Prepares the process: SIGPIPE ignored and more descriptors on POSIX; the
// socket library started on Windows.
void prepareProcess();

}  // namespace kmiosim
