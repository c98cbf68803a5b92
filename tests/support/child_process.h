#pragma once

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/unique_fd.h"
#include "support/line_cursor.h"

namespace kmiotest {

using std::chrono::milliseconds;

// A generous bound for anything a program should do promptly: tests check
// behaviour, not speed, and may run under sanitizers on a busy machine.
constexpr milliseconds kPatience{20000};

// A program the test started (argv[0] is looked up on PATH), with stdin,
// stdout and stderr on pipes held by the test. Only this pid is ever
// signalled: the destructor ends it (SIGTERM, then SIGKILL) and reaps it.
class ChildProcess {
public:
    // Throws std::runtime_error when the program cannot be started.
    explicit ChildProcess(const std::vector<std::string>& argv) {
        kmio::UniqueFd childEnds[3];
        for (int fd = 0; fd < 3; ++fd) {
            int ends[2];  // read, write: the child reads stdin and writes the others
            if (::pipe2(ends, O_CLOEXEC) != 0) {
                throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
            }
            childEnds[fd].reset(ends[fd == 0 ? 0 : 1]);
            fds_[fd].reset(ends[fd == 0 ? 1 : 0]);
        }
        std::vector<char*> args;
        for (const std::string& arg : argv) {
            args.push_back(const_cast<char*>(arg.c_str()));
        }
        args.push_back(nullptr);
        // posix_spawn rather than fork: the test process may run threads
        // already. The child starts with no blocked signals and default
        // handlers, whatever the test runner had set.
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        for (int fd = 0; fd < 3; ++fd) {
            posix_spawn_file_actions_adddup2(&actions, childEnds[fd].get(), fd);
        }
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        const int error = posix_spawnp(&pid_, args[0], &actions, &attributes, args.data(), environ);
        posix_spawnattr_destroy(&attributes);
        posix_spawn_file_actions_destroy(&actions);
        if (error != 0) {
            throw std::runtime_error("Could not start " + argv[0] + ": " + std::strerror(error));
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() { terminate(std::chrono::seconds(5)); }

    pid_t pid() const { return pid_; }
    const std::string& out() const { return text_[1]; }
    const std::string& err() const { return text_[2]; }

    // Writes all of `bytes` to the program's stdin; throws when it cannot.
    void writeStdin(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t n = ::write(fds_[0].get(), bytes.data(), bytes.size());
            if (n <= 0) {
                throw std::runtime_error("writing to the child's stdin failed");
            }
            bytes.remove_prefix(static_cast<std::size_t>(n));
        }
    }
    void closeStdin() { fds_[0].reset(); }

    // Collects output until `needle` is in stdout (true), or time or the
    // output runs out (false).
    bool waitForStdout(std::string_view needle, milliseconds limit = kPatience) {
        return collectUntil([&] { return out().find(needle) != std::string::npos; }, limit);
    }

    // Like waitForStdout, but only whole lines count, so that a half-written
    // line cannot match early, and the search starts after the line that the
    // previous call matched, so that events are met in order.
    bool waitForLine(std::string_view text, milliseconds limit = kPatience) {
        return collectUntil([&] { return lines_.nextLineHolding(out(), text); }, limit);
    }

    // Collects output to its end and reaps the program, killing it when the
    // limit passes first. Returns its exit code, or 128 + signal number.
    int wait(milliseconds limit = kPatience) {
        if (status_ >= 0) {
            return status_;
        }
        const auto deadline = std::chrono::steady_clock::now() + limit;
        collectUntil([] { return false; }, limit);
        // The output ends a moment before the process can be reaped.
        int raw = 0;
        pid_t done = 0;
        while ((done = ::waitpid(pid_, &raw, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(milliseconds(2));
        }
        if (done == 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, &raw, 0);
        }
        status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        return status_;
    }

    // SIGTERM, then wait().
    int terminate(milliseconds limit = kPatience) {
        if (status_ < 0) {
            ::kill(pid_, SIGTERM);
        }
        return wait(limit);
    }

private:
    // Reads stdout and stderr until `done` holds (true), or until the limit
    // passes or both reach their end (false).
    bool collectUntil(const std::function<bool()>& done, milliseconds limit) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            const auto left =
                std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd polled[3] = {{-1, 0, 0}, {fds_[1].get(), POLLIN, 0}, {fds_[2].get(), POLLIN, 0}};
            if (left.count() <= 0 || (!fds_[1] && !fds_[2])) {
                return false;
            }
            if (::poll(polled, 3, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            for (int i = 1; i < 3; ++i) {
                if (polled[i].revents == 0) {
                    continue;
                }
                char buffer[4096];
                const ssize_t n = ::read(fds_[i].get(), buffer, sizeof buffer);
                if (n > 0) {
                    text_[i].append(buffer, static_cast<std::size_t>(n));
                } else if (n == 0 || errno != EINTR) {
                    fds_[i].reset();  // poll ignores the negative descriptor from now on
                }
            }
        }
        return true;
    }

    pid_t pid_ = -1;
    int status_ = -1;
    kmio::UniqueFd fds_[3];  // our ends of the child's stdin, stdout and stderr
    std::string text_[3];    // what came from stdout and stderr
    LineCursor lines_;       // how far waitForLine has searched stdout
};

struct RunResult {
    int status;
    std::string out;
    std::string err;
};

// Runs a program with an empty stdin to its end (killing it after kPatience).
inline RunResult run(const std::vector<std::string>& argv) {
    ChildProcess child(argv);
    child.closeStdin();
    const int status = child.wait();
    return {status, child.out(), child.err()};
}

}  // namespace kmiotest
