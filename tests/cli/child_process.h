#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace kmio::clitest {

using std::chrono::milliseconds;

// A generous bound for anything the tool should do promptly; tests check
// behaviour, not speed, and may run under sanitizers on a busy machine.
constexpr milliseconds kPatience{20000};

// The kmio tool running as a child process with its three standard streams
// on pipes held by the test. Killed and reaped on destruction if still alive.
class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string>& args);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    pid_t pid() const { return pid_; }
    void writeStdin(const std::string& bytes);
    void closeStdin();

    // Collects output until `needle` shows up in stdout (or stderr), or time runs out.
    bool waitForStdout(const std::string& needle, milliseconds limit = kPatience);
    bool waitForStderr(const std::string& needle, milliseconds limit = kPatience);

    // Collects output to the end and reaps the child: its exit status, 128 +
    // signal when a signal ended it, -1 when it was still running at the limit.
    int wait(milliseconds limit = kPatience);

    const std::string& out() const { return out_; }
    const std::string& err() const { return err_; }

private:
    // Reads what is ready on stdout and stderr, waiting at most `limit`.
    void pump(milliseconds limit);
    bool pumpUntil(const std::string& needle, const std::string& stream, milliseconds limit);

    pid_t pid_ = -1;
    int stdin_ = -1;
    int stdout_ = -1;
    int stderr_ = -1;
    std::string out_;
    std::string err_;
    int status_ = -1;
};

struct RunResult {
    int status;
    std::string out;
    std::string err;
};

// Runs kmio with the arguments (stdin empty) to its end.
RunResult runKmio(const std::vector<std::string>& args);

}  // namespace kmio::clitest
