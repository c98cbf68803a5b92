#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <thread>

namespace kmiotest {

// What became of a scenario run in a child process.
struct ForkedResult {
    bool finished = false;  // false: still running at the limit, and killed
    int status = -1;        // exit code, or 128 + signal number
};

// Runs a scenario that may hang for good (a deadlock under test) in a forked
// copy of the test process, so that a hang fails the test instead of freezing
// it: the child is killed when the limit passes. The scenario returns the
// child's exit code; an exception makes it 99. Call it before the test starts
// threads of its own, since only the forking thread lives on in the child.
inline ForkedResult runForked(const std::function<int()>& scenario, std::chrono::milliseconds limit) {
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid < 0) {
        return {};
    }
    if (pid == 0) {
        int code = 99;
        try {
            code = scenario();
        } catch (const std::exception& error) {
            std::fprintf(stderr, "scenario threw: %s\n", error.what());
        }
        std::fflush(nullptr);
        // No exit handlers: they belong to the parent's copy of the test.
        ::_exit(code);
    }
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int raw = 0;
    while (::waitpid(pid, &raw, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &raw, 0);
            return {false, 128 + SIGKILL};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return {true, WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw)};
}

}  // namespace kmiotest
