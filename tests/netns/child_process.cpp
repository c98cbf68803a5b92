#include "netns/child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kmiotest {

ChildProcess::ChildProcess(const std::vector<std::string>& argv) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
    }
    output_fd_.reset(fds[0]);
    const kmio::UniqueFd writeEnd(fds[1]);

    std::vector<char*> args;
    for (const std::string& arg : argv) {
        args.push_back(const_cast<char*>(arg.c_str()));
    }
    args.push_back(nullptr);

    // posix_spawn rather than fork: the test process may run threads already.
    // The child starts with no blocked signals and default handlers, whatever
    // the test runner had set.
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDERR_FILENO);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t none;
    sigemptyset(&none);
    sigset_t reset;
    sigemptyset(&reset);
    sigaddset(&reset, SIGPIPE);
    sigaddset(&reset, SIGINT);
    sigaddset(&reset, SIGTERM);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &reset);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    const int error = posix_spawnp(&pid_, args[0], &actions, &attributes, args.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        throw std::runtime_error("Could not start " + argv[0] + ": " + std::strerror(error));
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && exitCode_ < 0) {
        terminate();
    }
}

bool ChildProcess::readSome(std::chrono::steady_clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd entry{output_fd_.get(), POLLIN, 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (ready <= 0) {
        return ready == 0 || errno == EINTR;
    }
    char buffer[4096];
    const ssize_t got = ::read(output_fd_.get(), buffer, sizeof buffer);
    if (got <= 0) {
        return got < 0 && errno == EINTR;
    }
    output_.append(buffer, static_cast<std::size_t>(got));
    return true;
}

bool ChildProcess::waitForLine(std::string_view text, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        // Only whole lines count, so that a half-written line cannot match early.
        std::size_t newline = 0;
        while ((newline = output_.find('\n', matched_)) != std::string::npos) {
            const std::string_view line = std::string_view(output_).substr(matched_, newline - matched_);
            matched_ = newline + 1;
            if (line.find(text) != std::string_view::npos) {
                return true;
            }
        }
        if (std::chrono::steady_clock::now() >= deadline || !readSome(deadline)) {
            return false;
        }
    }
}

int ChildProcess::wait(std::chrono::milliseconds timeout) {
    if (exitCode_ >= 0) {
        return exitCode_;
    }
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline && readSome(deadline)) {
    }
    // The output ends a moment before the process can be reaped.
    int status = 0;
    pid_t done = 0;
    while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (done == 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, &status, 0);
    }
    exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return exitCode_;
}

int ChildProcess::terminate(std::chrono::milliseconds timeout) {
    if (exitCode_ < 0) {
        ::kill(pid_, SIGTERM);
    }
    return wait(timeout);
}

int runProgram(const std::vector<std::string>& argv, std::string* output) {
    ChildProcess child(argv);
    const int code = child.wait(std::chrono::seconds(30));
    if (output != nullptr) {
        *output = child.output();
    }
    return code;
}

}  // namespace kmiotest
