#pragma once

#include "console_wait.h"
#include "hex_dump.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kmiotool {

// One open device as the open and send commands use it: received bytes go
// to stdout (raw or as a hex dump), link errors to stderr. The first link
// error, or stdout failing, ends the command's waits (ConsoleWait::notifyEnd); the network link keeps
// reporting a lost link on every pass after the peer closed, so only a change of code is reported again.
class DeviceSession {
public:
    DeviceSession(std::string locator, bool hex, ConsoleWait& wait)
        : locator_(std::move(locator)), hex_(hex), wait_(wait) {}
    DeviceSession(const DeviceSession&) = delete;
    DeviceSession& operator=(const DeviceSession&) = delete;
    // Closes the device with wait if it is still open.
    ~DeviceSession();

    std::uint32_t open(const std::string& options);
    std::uint32_t send(const std::uint8_t* data, std::size_t length);
    // Closes with wait: once it returns no callback runs any more.
    void close();

    const std::string& locator() const { return locator_; }
    // True once a link error was reported or stdout could not be written.
    bool failed() const { return failed_.load(); }

private:
    static void onReceive(void* context, const std::uint8_t* data, std::size_t length);
    static void onLinkError(void* context, std::uint32_t code);

    void receive(const std::uint8_t* data, std::size_t length);
    void linkError(std::uint32_t code);

    std::string locator_;
    bool hex_;
    HexDump dump_;  // used by the receiving thread only
    ConsoleWait& wait_;
    std::uint32_t handle_ = 0;
    bool open_ = false;
    std::uint32_t lastError_ = 0;  // receiving thread only
    std::atomic<bool> failed_{false};
};

}  // namespace kmiotool
