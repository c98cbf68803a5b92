#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "platform/clock.h"
#include "serial/serial_port_scanner.h"

namespace kmio {

// The last port list, refreshed at most every 3 seconds unless forced, so that
// applications that enumerate in a loop do not probe every port each time.
// Its lock is held only to test freshness, swap the list and copy it out;
// the scan itself, which opens every port, runs outside it.
class SerialPortCache {
public:
    // A list scanned less than this long ago is fresh.
    static constexpr std::chrono::milliseconds kFreshness{3000};

    explicit SerialPortCache(std::shared_ptr<const SerialPortScanner> scanner, Clock clock = steadyClock());
    SerialPortCache(const SerialPortCache&) = delete;
    SerialPortCache& operator=(const SerialPortCache&) = delete;

    // Scans unless the list is filled and younger than 3 s (always with force).
    // A scan cannot fail; it only finds fewer ports.
    void refresh(bool force);

    // A copy of the cached list (empty before the first refresh).
    std::vector<SerialPortEntry> ports() const;

    const SerialPortScanner& scanner() const noexcept { return *scanner_; }

private:
    std::shared_ptr<const SerialPortScanner> scanner_;
    const Clock clock_;
    mutable std::mutex mutex_;
    std::vector<SerialPortEntry> ports_;
    // When the list in ports_ was scanned; none before the first refresh.
    std::optional<std::chrono::steady_clock::time_point> scannedAt_;
};

}  // namespace kmio
