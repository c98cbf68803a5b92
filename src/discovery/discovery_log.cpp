#include "discovery/discovery_log.h"

#include <atomic>
#include <memory>
#include <mutex>

namespace kalometnd {

namespace {

struct DiscoveryLog {
    std::atomic<unsigned> mask{kLogErrors};
    std::mutex mutex;
    std::shared_ptr<const LogSink> sink;  // null while no sink is installed
};

// Never destroyed: host threads may write to it while the process exits.
DiscoveryLog& theLog() {
    static auto* const log = new DiscoveryLog;
    return *log;
}

std::shared_ptr<const LogSink> currentSink() {
    DiscoveryLog& log = theLog();
    const std::lock_guard lock(log.mutex);
    return log.sink;
}

}  // namespace

void setLogMask(unsigned mask) {
    theLog().mask.store(mask);
}

unsigned logMask() {
    return theLog().mask.load();
}

void setLogSink(LogSink sink) {
    DiscoveryLog& log = theLog();
    auto installed = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
    const std::lock_guard lock(log.mutex);
    log.sink = std::move(installed);
}

bool logEnabled(unsigned level) {
    return (logMask() & level) != 0 && currentSink() != nullptr;
}

void logLine(unsigned level, const std::string& line) {
    if ((logMask() & level) == 0) {
        return;
    }
    // Called outside the lock so that a slow sink does not hold up other threads' setters.
    if (const auto sink = currentSink()) {
        (*sink)(level, line);
    }
}

}  // namespace kalometnd
