#pragma once

// The Windows twin of child_process.h, with the part of it the suites that
// run on Windows use: start a program beside the test program, wait for a
// line of its output, end it.

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "support/line_cursor.h"

namespace kmiotest {

using std::chrono::milliseconds;

constexpr milliseconds kPatience{20000};

// Closes a Win32 handle when it goes.
struct HandleCloser {
    void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

// A program the test started, its stdout and stderr on one pipe the test
// reads. Only this process is ever ended: the destructor terminates it.
class ChildProcess {
public:
    // argv[0] is looked up the way Windows does, the test program's folder
    // first. Throws std::runtime_error when the program cannot be started.
    explicit ChildProcess(const std::vector<std::string>& argv) {
        SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        HANDLE read = nullptr;
        HANDLE write = nullptr;
        // Room for all a simulator says in a test, which nobody may read.
        if (!::CreatePipe(&read, &write, &inheritable, 1 << 20)) {
            throw std::runtime_error("CreatePipe failed");
        }
        output_.reset(read);
        const UniqueHandle childEnd(write);  // the child's copy is all that must stay open
        ::SetHandleInformation(read, HANDLE_FLAG_INHERIT, 0);

        std::string commandLine;
        for (const std::string& arg : argv) {
            commandLine += (commandLine.empty() ? "\"" : " \"") + arg + "\"";
        }
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
        startup.hStdOutput = write;
        startup.hStdError = write;
        PROCESS_INFORMATION started{};
        if (!::CreateProcessA(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                              &startup, &started)) {
            throw std::runtime_error("Could not start " + argv[0] + ": error " +
                                     std::to_string(::GetLastError()));
        }
        process_.reset(started.hProcess);
        ::CloseHandle(started.hThread);
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() { terminate(); }

    const std::string& out() const { return text_; }

    // Collects output until a whole line after the one matched last holds
    // text (true), or until the limit passes or the output ends (false).
    bool waitForLine(std::string_view text, milliseconds limit = kPatience) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            if (lines_.nextLineHolding(text_, text)) {
                return true;
            }
            if (std::chrono::steady_clock::now() > deadline || !readAvailable()) {
                return false;
            }
        }
    }

    // Ends the program and returns its exit code.
    int terminate(milliseconds limit = kPatience) {
        DWORD code = 0;
        if (::GetExitCodeProcess(process_.get(), &code) && code == STILL_ACTIVE) {
            ::TerminateProcess(process_.get(), 143);
            ::WaitForSingleObject(process_.get(), static_cast<DWORD>(limit.count()));
            ::GetExitCodeProcess(process_.get(), &code);
        }
        return static_cast<int>(code);
    }

private:
    // Appends what the pipe holds, waiting a moment when it holds nothing;
    // false once the program has closed its end.
    bool readAvailable() {
        DWORD available = 0;
        if (!::PeekNamedPipe(output_.get(), nullptr, 0, nullptr, &available, nullptr)) {
            return false;
        }
        if (available == 0) {
            std::this_thread::sleep_for(milliseconds(10));
            return true;
        }
        char buffer[4096];
        DWORD got = 0;
        if (!::ReadFile(output_.get(), buffer, std::min<DWORD>(available, sizeof buffer), &got, nullptr)) {
            return false;
        }
        text_.append(buffer, got);
        return true;
    }

    UniqueHandle process_;
    UniqueHandle output_;
    std::string text_;
    LineCursor lines_;
};

}  // namespace kmiotest
