#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kmiotool {

// What a command waits for: a stop request from the console (Ctrl-C; SIGTERM
// too on POSIX), the end of its device session, and input on stdin.
//
// Create it before opening devices or starting discovery: on POSIX the stop
// signals are blocked in the calling thread and so in every thread started
// after it (the library's receiving and discovery threads inherit the mask),
// and SIGPIPE is ignored, so that a closed stdout shows as a write error
// instead of killing the tool before it closes its device. On Windows a
// console control handler takes Ctrl-C, and stdin and stdout are switched to
// binary mode. Everything comes back as it was when the object goes.
class ConsoleWait {
public:
    enum class Woken { Stop, End, Input, TimedOut };

    ConsoleWait();
    ConsoleWait(const ConsoleWait&) = delete;
    ConsoleWait& operator=(const ConsoleWait&) = delete;
    ~ConsoleWait();

    // Makes this and every later wait return End. Safe from any thread.
    void notifyEnd();

    // Waits up to timeoutMs (negative: without a limit) for a stop request,
    // the end, or (when watchInput) input; in that order when several are there.
    Woken wait(bool watchInput, int timeoutMs);

    // After wait returned Input: reads what stdin has. The number of bytes,
    // 0 at the end of input (a read error ends it the same way), or negative
    // when there is nothing after all.
    std::ptrdiff_t readInput(std::uint8_t* buffer, std::size_t size);

    // Writes all bytes to stdout; false when stdout cannot take them.
    static bool writeOutput(const void* data, std::size_t length);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kmiotool
