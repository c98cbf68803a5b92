#include "serial/serial_port_cache.h"

#include <utility>

#include "kmio/kmio.h"

namespace kmio {

SerialPortCache::SerialPortCache(std::shared_ptr<const SerialPortScanner> scanner, Clock clock)
    : scanner_(std::move(scanner)), clock_(std::move(clock)) {}

void SerialPortCache::refresh(bool force) {
    const auto now = clock_();
    if (!force) {
        std::lock_guard lock(mutex_);
        if (scannedAt_ && now - *scannedAt_ < kFreshness) {
            return;
        }
    }
    std::vector<SerialPortEntry> scanned = scanner_->scan();
    std::lock_guard lock(mutex_);
    ports_ = std::move(scanned);
    scannedAt_ = now;
}

std::vector<SerialPortEntry> SerialPortCache::ports() const {
    std::lock_guard lock(mutex_);
    return ports_;
}

}  // namespace kmio
