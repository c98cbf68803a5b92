#include <windows.h>

#include "platform/error_text.h"

namespace kmio {

// The system's own message for the code, as FormatMessage gives it (from the
// system table, no inserts, default language, at most 256 bytes), without the
// line break it ends with.
std::string systemErrorText(int error) {
    char buffer[256] = {};
    const DWORD length = ::FormatMessageA(
        FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, static_cast<DWORD>(error),
        MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), buffer, sizeof buffer, nullptr);
    std::string text(buffer, length);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
        text.pop_back();
    }
    if (text.empty()) {
        text = "Unknown error " + std::to_string(error);
    }
    return text;
}

// WinSock reports through the same per-thread value (WSAGetLastError reads it).
std::string lastSystemErrorText() {
    return systemErrorText(static_cast<int>(::GetLastError()));
}

}  // namespace kmio
