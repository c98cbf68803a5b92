#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "serial/serial_port_scanner.h"

namespace kmio {

// The last port list, refreshed at most every 3 seconds unless forced, so that
// applications that enumerate in a loop do not probe every port each time.
// Its lock is held only to test freshness, swap the list and copy it out;
// the scan itself, which opens every port, runs outside it.
class SerialPortCache {
public:
    static constexpr std::int64_t kFreshnessNs = 3'000'000'000;

    explicit SerialPortCache(std::shared_ptr<const SerialPortScanner> scanner);
    SerialPortCache(const SerialPortCache&) = delete;
    SerialPortCache& operator=(const SerialPortCache&) = delete;

    // Scans unless the list is filled and younger than 3 s (always with force).
    // Returns KM_IO_OK: a scan cannot fail, it only finds fewer ports.
    std::uint32_t refresh(bool force);

    // A copy of the cached list (empty before the first refresh).
    std::vector<SerialPortEntry> ports() const;

    const SerialPortScanner& scanner() const noexcept { return *scanner_; }

    // The cache over the machine's real /sys and /dev.
    static SerialPortCache& processWide();

private:
    std::shared_ptr<const SerialPortScanner> scanner_;
    mutable std::mutex mutex_;
    std::vector<SerialPortEntry> ports_;
    bool filled_ = false;
    std::int64_t scannedAtNs_ = 0;
};

}  // namespace kmio
