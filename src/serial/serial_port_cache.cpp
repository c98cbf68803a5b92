#include "serial/serial_port_cache.h"

#include <utility>

#include "kmio/kmio.h"
#include "platform/steady_clock.h"

namespace kmio {

SerialPortCache::SerialPortCache(std::shared_ptr<const SerialPortScanner> scanner)
    : scanner_(std::move(scanner)) {}

std::uint32_t SerialPortCache::refresh(bool force) {
    const std::int64_t now = steadyNowNs();
    if (!force) {
        std::lock_guard lock(mutex_);
        if (filled_ && now - scannedAtNs_ < kFreshnessNs) {
            return KM_IO_OK;
        }
    }
    std::vector<SerialPortEntry> scanned = scanner_->scan();
    std::lock_guard lock(mutex_);
    ports_ = std::move(scanned);
    filled_ = true;
    scannedAtNs_ = now;
    return KM_IO_OK;
}

std::vector<SerialPortEntry> SerialPortCache::ports() const {
    std::lock_guard lock(mutex_);
    return ports_;
}

SerialPortCache& SerialPortCache::processWide() {
    // Never destroyed, so that an enumeration running while the process
    // exits does not meet a destroyed cache.
    static auto* cache = new SerialPortCache(std::make_shared<const SerialPortScanner>());
    return *cache;
}

}  // namespace kmio
