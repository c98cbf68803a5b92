// The WinSock calls behind IoNetwork.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <memory>
#include <string>
#include <system_error>

#include "network/io_network.h"

namespace kmio {

namespace {

SOCKET handleOf(const Socket& socket) {
    return static_cast<SOCKET>(socket.get());
}

bool setNonBlocking(SOCKET socket, bool on) {
    u_long mode = on ? 1 : 0;
    return ::ioctlsocket(socket, FIONBIO, &mode) == 0;
}

// Waits for a non-blocking connect by testing writability only, with the
// timeout split into seconds and microseconds. A refused connection is not
// writable, so it shows only when the wait ends.
bool awaitConnect(SOCKET socket, std::uint32_t timeoutMs) {
    fd_set writable;
    FD_ZERO(&writable);
    FD_SET(socket, &writable);
    timeval limit{};
    limit.tv_sec = static_cast<long>(timeoutMs / 1000);
    limit.tv_usec = static_cast<long>((timeoutMs % 1000) * 1000);
    return ::select(0, nullptr, &writable, nullptr, &limit) > 0 && FD_ISSET(socket, &writable);
}

}  // namespace

// The receiving thread waits on the socket's network events and the wake-up
// event together. FD_CLOSE is reported once, so the peer's close is kept and
// makes every later pass readable at once, as a closed socket is on Linux.
struct IoNetwork::WaitState {
    WSAEVENT event = WSA_INVALID_EVENT;
    bool peerClosed = false;
    ~WaitState() {
        if (event != WSA_INVALID_EVENT) {
            ::WSACloseEvent(event);
        }
    }
};

void IoNetwork::WaitStateDeleter::operator()(WaitState* state) const noexcept {
    delete state;
}

Socket IoNetwork::connectAddress(const addrinfo& address, std::uint32_t timeoutMs, bool& creationFailed) {
    Socket candidate(static_cast<Socket::Native>(::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)));
    if (!candidate) {
        creationFailed = true;
        return {};
    }
    const SOCKET s = handleOf(candidate);
    if (!setNonBlocking(s, true)) {
        return {};
    }
    if (::connect(s, address.ai_addr, static_cast<int>(address.ai_addrlen)) != 0) {
        if (::WSAGetLastError() != WSAEWOULDBLOCK || !awaitConnect(s, timeoutMs)) {
            return {};
        }
    }
    if (!setNonBlocking(s, false)) {
        return {};
    }
    return candidate;
}

// Host not found (11001) and try again (11002).
bool IoNetwork::isNameNotFound(int resolverError) {
    return resolverError == WSAHOST_NOT_FOUND || resolverError == WSATRY_AGAIN;
}

IoNetwork::Readiness IoNetwork::waitReadable(int timeoutMs, int& error) {
    if (!waitState_) {
        // Tying an event to the socket makes it non-blocking; sendSome waits
        // for room itself.
        waitState_.reset(new WaitState);
        waitState_->event = ::WSACreateEvent();
        if (waitState_->event == WSA_INVALID_EVENT ||
            ::WSAEventSelect(handleOf(socket_), waitState_->event, FD_READ | FD_CLOSE) != 0) {
            error = ::WSAGetLastError();
            waitState_.reset();
            return Readiness::Failed;
        }
    }
    const WSAEVENT events[2] = {reinterpret_cast<WSAEVENT>(wake_->native()), waitState_->event};
    const DWORD wait = waitState_->peerClosed ? 0 : static_cast<DWORD>(timeoutMs);
    const DWORD result = ::WSAWaitForMultipleEvents(2, events, FALSE, wait, FALSE);
    if (result == WSA_WAIT_FAILED) {
        error = ::WSAGetLastError();
        return Readiness::Failed;
    }
    // A pending close wins: the pass ends at once and no callback follows it.
    if (result == WSA_WAIT_EVENT_0) {
        return Readiness::Idle;
    }
    if (result == WSA_WAIT_EVENT_0 + 1) {
        WSANETWORKEVENTS happened{};
        if (::WSAEnumNetworkEvents(handleOf(socket_), waitState_->event, &happened) != 0) {
            error = ::WSAGetLastError();
            return Readiness::Failed;
        }
        if ((happened.lNetworkEvents & FD_CLOSE) != 0) {
            waitState_->peerClosed = true;
        }
        // Every recv that leaves bytes behind posts FD_READ again, so the
        // event can still be set after a later recv took the rest. Only
        // FD_CLOSE means the peer has gone: a read event with nothing to
        // read is stale, not a closed peer.
        std::size_t pending = 0;
        if (!waitState_->peerClosed && pendingBytes(pending) && pending == 0) {
            return Readiness::Idle;
        }
        return Readiness::Readable;
    }
    return waitState_->peerClosed ? Readiness::Readable : Readiness::Idle;
}

bool IoNetwork::pendingBytes(std::size_t& pending) {
    u_long count = 0;
    if (::ioctlsocket(handleOf(socket_), FIONREAD, &count) != 0) {
        return false;
    }
    pending = static_cast<std::size_t>(count);
    return true;
}

std::ptrdiff_t IoNetwork::receiveSome(std::uint8_t* buffer, std::size_t length, int& error) {
    const int n = ::recv(handleOf(socket_), reinterpret_cast<char*>(buffer), static_cast<int>(length), 0);
    if (n == SOCKET_ERROR) {
        error = ::WSAGetLastError();
        return -1;
    }
    return n;
}

std::ptrdiff_t IoNetwork::sendSome(const std::uint8_t* data, std::size_t length, int& error) {
    if (!socket_) {
        // The receiving thread has already closed the connection.
        error = WSAENOTSOCK;
        return -1;
    }
    const SOCKET s = handleOf(socket_);
    for (;;) {
        const int n = ::send(s, reinterpret_cast<const char*>(data), static_cast<int>(length), 0);
        if (n != SOCKET_ERROR) {
            return n;
        }
        error = ::WSAGetLastError();
        if (error != WSAEWOULDBLOCK) {
            return -1;
        }
        // The socket is non-blocking once the receiving thread waits on it:
        // wait, without a time limit, for room. Close shuts the socket down,
        // which ends this wait and makes the next send fail.
        fd_set writable;
        fd_set failed;
        FD_ZERO(&writable);
        FD_ZERO(&failed);
        FD_SET(s, &writable);
        FD_SET(s, &failed);
        if (::select(0, nullptr, &writable, &failed, nullptr) == SOCKET_ERROR) {
            error = ::WSAGetLastError();
            return -1;
        }
    }
}

bool IoNetwork::isTimedOut(int error) {
    return error == WSAETIMEDOUT;
}

bool IoNetwork::isInterrupted(int error) {
    return error == WSAEINTR;
}

}  // namespace kmio
