#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "platform/unique_fd.h"

namespace kmiotest {

// A program the test started, with its stdout and stderr read through a
// pipe. The destructor ends it (SIGTERM, then SIGKILL) and reaps it; only
// this pid is ever signalled.
class ChildProcess {
public:
    // Throws std::runtime_error when the program cannot be started.
    explicit ChildProcess(const std::vector<std::string>& argv);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    pid_t pid() const { return pid_; }

    // Reads output until a line containing `text` has arrived (true), or
    // until the timeout or the end of output (false). The search starts after
    // the line that the previous call matched, so events are met in order.
    bool waitForLine(std::string_view text, std::chrono::milliseconds timeout);

    // Everything read so far.
    const std::string& output() const { return output_; }

    // Reads to the end of output and reaps the program, killing it when the
    // timeout passes first. Returns its exit code, or 128 + signal number.
    int wait(std::chrono::milliseconds timeout);

    // SIGTERM, then wait().
    int terminate(std::chrono::milliseconds timeout = std::chrono::seconds(5));

private:
    // Reads what is available within the time left; false at end of output.
    bool readSome(std::chrono::steady_clock::time_point deadline);

    pid_t pid_ = -1;
    int exitCode_ = -1;
    kmio::UniqueFd output_fd_;
    std::string output_;
    std::size_t matched_ = 0;  // output_ before this index has been searched
};

// Runs a program to its end (at most 30 s) and returns its exit code; its
// output goes to `output` when given.
int runProgram(const std::vector<std::string>& argv, std::string* output = nullptr);

}  // namespace kmiotest
