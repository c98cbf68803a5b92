#include <fcntl.h>
#include <io.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "console_wait.h"

namespace kmiotool {

namespace {

// The console control handler has no context argument: it finds the stop
// event of the one ConsoleWait alive through this.
std::atomic<HANDLE> stopEventForHandler{nullptr};

BOOL WINAPI onConsoleControl(DWORD type) {
    if (type == CTRL_C_EVENT || type == CTRL_BREAK_EVENT || type == CTRL_CLOSE_EVENT) {
        if (HANDLE stop = stopEventForHandler.load(); stop != nullptr) {
            ::SetEvent(stop);
            return TRUE;
        }
    }
    return FALSE;
}

HANDLE manualResetEvent() {
    HANDLE event = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
    if (event == nullptr) {
        throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(), "CreateEvent");
    }
    return event;
}

// Stdin may be a console, a pipe or a file, and only a console handle can be
// waited on. So a thread reads it and hands the chunks over; the input event
// is set while a chunk or the end of input waits to be taken. The thread may
// stay blocked in ReadFile when the tool is done: it owns a share of this
// state and is left to end with the process.
struct InputReader {
    std::mutex mutex;
    std::deque<std::vector<std::uint8_t>> chunks;  // an empty chunk marks the end of input
    HANDLE ready = manualResetEvent();

    ~InputReader() { ::CloseHandle(ready); }

    void run() {
        const HANDLE in = ::GetStdHandle(STD_INPUT_HANDLE);
        for (;;) {
            std::vector<std::uint8_t> chunk(4096);
            DWORD got = 0;
            if (!::ReadFile(in, chunk.data(), static_cast<DWORD>(chunk.size()), &got, nullptr) || got == 0) {
                chunk.clear();
            } else {
                chunk.resize(got);
            }
            const bool end = chunk.empty();
            {
                std::lock_guard lock(mutex);
                chunks.push_back(std::move(chunk));
                ::SetEvent(ready);
            }
            if (end) {
                return;
            }
        }
    }
};

}  // namespace

struct ConsoleWait::State {
    HANDLE stop = manualResetEvent();
    HANDLE end = manualResetEvent();
    std::shared_ptr<InputReader> input;

    ~State() {
        ::CloseHandle(stop);
        ::CloseHandle(end);
    }
};

ConsoleWait::ConsoleWait() : state_(std::make_unique<State>()) {
    stopEventForHandler.store(state_->stop);
    ::SetConsoleCtrlHandler(&onConsoleControl, TRUE);
    // Bytes pass through unchanged: no CR/LF translation either way.
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
}

ConsoleWait::~ConsoleWait() {
    ::SetConsoleCtrlHandler(&onConsoleControl, FALSE);
    stopEventForHandler.store(nullptr);
}

void ConsoleWait::notifyEnd() {
    ::SetEvent(state_->end);
}

ConsoleWait::Woken ConsoleWait::wait(bool watchInput, int timeoutMs) {
    if (watchInput && !state_->input) {
        state_->input = std::make_shared<InputReader>();
        std::thread([reader = state_->input] { reader->run(); }).detach();
    }
    const HANDLE events[3] = {state_->stop, state_->end, watchInput ? state_->input->ready : nullptr};
    const DWORD count = watchInput ? 3 : 2;
    const DWORD limit = timeoutMs < 0 ? INFINITE : static_cast<DWORD>(timeoutMs);
    const DWORD woken = ::WaitForMultipleObjects(count, events, FALSE, limit);
    switch (woken) {
        case WAIT_OBJECT_0:
            return Woken::Stop;
        case WAIT_OBJECT_0 + 1:
            return Woken::End;
        case WAIT_OBJECT_0 + 2:
            return Woken::Input;
        case WAIT_TIMEOUT:
            return Woken::TimedOut;
        default:
            throw std::system_error(static_cast<int>(::GetLastError()), std::system_category(),
                                    "WaitForMultipleObjects");
    }
}

std::ptrdiff_t ConsoleWait::readInput(std::uint8_t* buffer, std::size_t size) {
    InputReader& reader = *state_->input;
    std::lock_guard lock(reader.mutex);
    if (reader.chunks.empty()) {
        ::ResetEvent(reader.ready);
        return -1;
    }
    std::vector<std::uint8_t>& chunk = reader.chunks.front();
    if (chunk.empty()) {
        return 0;  // the end of input stays there for every later read
    }
    const std::size_t n = std::min(size, chunk.size());
    std::memcpy(buffer, chunk.data(), n);
    chunk.erase(chunk.begin(), chunk.begin() + static_cast<std::ptrdiff_t>(n));
    if (chunk.empty()) {
        reader.chunks.pop_front();
    }
    if (reader.chunks.empty()) {
        ::ResetEvent(reader.ready);
    }
    return static_cast<std::ptrdiff_t>(n);
}

bool ConsoleWait::writeOutput(const void* data, std::size_t length) {
    return std::fwrite(data, 1, length, stdout) == length && std::fflush(stdout) == 0;
}

}  // namespace kmiotool
