#include "child_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace kmio::clitest {

namespace {

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& args) {
    int in[2];
    int out[2];
    int err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2 failed");
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
    std::vector<std::string> argvText = {KMIO_TOOL_PATH};
    argvText.insert(argvText.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& arg : argvText) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    int rc = posix_spawn(&pid_, KMIO_TOOL_PATH, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    stdin_ = in[1];
    stdout_ = out[0];
    stderr_ = err[0];
    if (rc != 0) {
        pid_ = -1;
        throw std::runtime_error("posix_spawn failed");
    }
}

ChildProcess::~ChildProcess() {
    if (pid_ > 0 && status_ < 0) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }
    closeFd(stdin_);
    closeFd(stdout_);
    closeFd(stderr_);
}

void ChildProcess::writeStdin(const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(stdin_, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            throw std::runtime_error("writing to the child's stdin failed");
        }
        done += static_cast<std::size_t>(n);
    }
}

void ChildProcess::closeStdin() {
    closeFd(stdin_);
}

void ChildProcess::pump(milliseconds limit) {
    pollfd fds[2] = {{stdout_, POLLIN, 0}, {stderr_, POLLIN, 0}};
    if (::poll(fds, 2, static_cast<int>(limit.count())) <= 0) {
        return;
    }
    int* fdOf[2] = {&stdout_, &stderr_};
    std::string* textOf[2] = {&out_, &err_};
    for (int i = 0; i < 2; ++i) {
        if (fds[i].revents == 0) {
            continue;
        }
        char buffer[4096];
        ssize_t n = ::read(*fdOf[i], buffer, sizeof buffer);
        if (n > 0) {
            textOf[i]->append(buffer, static_cast<std::size_t>(n));
        } else if (n == 0 || errno != EINTR) {
            closeFd(*fdOf[i]);  // poll ignores the negative descriptor from now on
        }
    }
}

bool ChildProcess::pumpUntil(const std::string& needle, const std::string& stream, milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (stream.find(needle) == std::string::npos) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || (stdout_ < 0 && stderr_ < 0)) {
            return false;
        }
        pump(left);
    }
    return true;
}

bool ChildProcess::waitForStdout(const std::string& needle, milliseconds limit) {
    return pumpUntil(needle, out_, limit);
}

bool ChildProcess::waitForStderr(const std::string& needle, milliseconds limit) {
    return pumpUntil(needle, err_, limit);
}

int ChildProcess::wait(milliseconds limit) {
    if (status_ >= 0) {
        return status_;
    }
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (stdout_ >= 0 || stderr_ >= 0) {
        auto left = std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return -1;
        }
        pump(left);
    }
    // Both pipes are closed, so the child is exiting; reap it.
    while (true) {
        int raw = 0;
        pid_t done = ::waitpid(pid_, &raw, WNOHANG);
        if (done == pid_) {
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
            return status_;
        }
        if (std::chrono::steady_clock::now() > deadline) {
            return -1;
        }
        std::this_thread::sleep_for(milliseconds(5));
    }
}

RunResult runKmio(const std::vector<std::string>& args) {
    ChildProcess child(args);
    child.closeStdin();
    int status = child.wait();
    return {status, child.out(), child.err()};
}

}  // namespace kmio::clitest
