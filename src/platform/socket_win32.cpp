#include <winsock2.h>

#include <system_error>

#include "platform/socket.h"

namespace kmio {

void Socket::reset(Native handle) noexcept {
    if (handle_ != kInvalid) {
        ::closesocket(static_cast<SOCKET>(handle_));
    }
    handle_ = handle;
}

void Socket::shutdownBoth() noexcept {
    if (handle_ != kInvalid) {
        ::shutdown(static_cast<SOCKET>(handle_), SD_BOTH);
    }
}

namespace {

// WinSock counts start-ups; one that is never cleaned up keeps the library
// started for the life of the process, which is what every user here wants.
// The static makes the start happen once, on first use, safely from any thread.
int startWinSock() {
    WSADATA data{};
    return ::WSAStartup(MAKEWORD(2, 2), &data);
}

}  // namespace

void startSocketLibrary() {
    static const int result = startWinSock();
    if (result != 0) {
        throw std::system_error(result, std::system_category(), "WSAStartup");
    }
}

}  // namespace kmio
