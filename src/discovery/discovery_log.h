#pragma once

#include <functional>
#include <string>
#include <utility>

namespace kalometnd {

// The discovery component's process-wide log. Nothing is written unless an
// embedding installs a sink; the mask picks which kinds of line reach it.
enum LogLevel : unsigned {
    kLogErrors = 1,   // socket errors that are not thrown
    kLogPackets = 2,  // decoded packets sent and received
    kLogRaw = 4,      // raw datagrams sent and received
};

using LogSink = std::function<void(unsigned level, const std::string& line)>;

// The mask starts as kLogErrors.
void setLogMask(unsigned mask);
unsigned logMask();

// Installs (or, with an empty function, removes) the sink. The sink may be
// called from any thread, and concurrently; it must not call setLogSink.
void setLogSink(LogSink sink);

// True when the level is in the mask and a sink is installed.
bool logEnabled(unsigned level);

// Writes one line when logEnabled(level).
void logLine(unsigned level, const std::string& line);

// Builds the line only when it would be written, so that formatting costs
// nothing while logging is off.
template <typename MakeLine>
void logLazy(unsigned level, MakeLine&& makeLine) {
    if (logEnabled(level)) {
        logLine(level, std::forward<MakeLine>(makeLine)());
    }
}

}  // namespace kalometnd
