#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "simulator.h"

namespace ftdisim {
namespace {

// The entry points a failure can be injected into.
constexpr std::array<std::string_view, 24> kEntryPoints = {
    "FT_CreateDeviceInfoList",
    "FT_GetDeviceInfoList",
    "FT_Open",
    "FT_OpenEx",
    "FT_Close",
    "FT_GetStatus",
    "FT_Read",
    "FT_Write",
    "FT_Purge",
    "FT_SetBaudRate",
    "FT_SetDataCharacteristics",
    "FT_SetFlowControl",
    "FT_SetTimeouts",
    "FT_SetLatencyTimer",
    "FT_SetBitMode",
    "FT_SetUSBParameters",
    "FT_SetEventNotification",
    "FT_ReadEE",
    "FT_EE_Read",
    "FT_EE_UASize",
    "FT_EE_UARead",
    "FT_EE_UAWrite",
    "FTID_GetNumDevices",
    "FTID_GetChipIDFromHandle",
};

}  // namespace

Simulator::Simulator() {
    if (const char* path = std::getenv("FTDISIM_CONFIG"); path != nullptr && *path != '\0') {
        loadChipFile(path);
    }
}

// A bad line is reported and skipped, so that one typo does not hide the
// other chips.
void Simulator::loadChipFile(const char* path) {
    std::ifstream file(path);
    if (!file) {
        std::fprintf(stderr, "ftdi-sim: cannot read %s\n", path);
        return;
    }
    std::string line;
    for (int number = 1; std::getline(file, line); ++number) {
        std::string error;
        if (!isBlankOrComment(line) && !addChipLocked(line, error)) {
            std::fprintf(stderr, "ftdi-sim: %s:%d: %s\n", path, number, error.c_str());
        }
    }
}

void Simulator::reset() {
    Lock lock(mutex_);
    for (const auto& chip : chips_) {
        chip->unplug();
    }
    chips_.clear();
    list_.clear();
    failures_.clear();
    nextLocation_ = 1;
    changed_.notify_all();
}

bool Simulator::addChip(std::string_view line, std::string& error) {
    Lock lock(mutex_);
    return addChipLocked(line, error);
}

bool Simulator::addChipLocked(std::string_view line, std::string& error) {
    auto description = ChipDescription::parse(line, error);
    if (!description) {
        return false;
    }
    const std::string serial = description->serial;
    if (findPluggedChip([&](const Chip& chip) { return chip.description().serial == serial; })) {
        error = "a plugged chip has serial number " + serial + " already";
        return false;
    }
    // An unplugged chip of that serial number is forgotten: the name now
    // means the new chip.
    std::erase_if(chips_, [&](const auto& chip) { return chip->description().serial == serial; });
    const std::uint32_t location = description->location.value_or(nextLocation_);
    ++nextLocation_;
    chips_.push_back(std::make_shared<Chip>(std::move(*description), location));
    return true;
}

bool Simulator::unplug(const std::string& serial) {
    Lock lock(mutex_);
    const auto chip = findChip(serial);
    if (!chip || !chip->plugged()) {
        return false;
    }
    chip->unplug();
    changed_.notify_all();
    return true;
}

bool Simulator::feed(const std::string& serial, const std::uint8_t* data, std::size_t length) {
    PendingSignal signal;
    {
        Lock lock(mutex_);
        const auto chip = findChip(serial);
        if (!chip || !chip->plugged() || (data == nullptr && length > 0)) {
            return false;
        }
        chip->receive(data, length);
        signal = armSignal(*chip);
        changed_.notify_all();
    }
    deliver(signal);
    return true;
}

bool Simulator::signalEvent(const std::string& serial) {
    PendingSignal signal;
    {
        Lock lock(mutex_);
        const auto chip = findChip(serial);
        if (!chip) {
            return false;
        }
        signal = armSignal(*chip);
    }
    deliver(signal);
    return true;
}

std::size_t Simulator::takeWritten(const std::string& serial, std::uint8_t* out, std::size_t capacity) {
    Lock lock(mutex_);
    const auto chip = findChip(serial);
    return chip && out != nullptr ? chip->takeWritten(out, capacity) : 0;
}

bool Simulator::setEcho(const std::string& serial, bool on) {
    Lock lock(mutex_);
    const auto chip = findChip(serial);
    if (chip) {
        chip->setEcho(on);
    }
    return chip != nullptr;
}

bool Simulator::stream(const std::string& serial, std::uint64_t bytes) {
    PendingSignal signal;
    {
        Lock lock(mutex_);
        const auto chip = findChip(serial);
        if (!chip || !chip->plugged()) {
            return false;
        }
        chip->startStream(bytes);
        if (chip->received() > 0) {
            signal = armSignal(*chip);
            changed_.notify_all();
        }
    }
    deliver(signal);
    return true;
}

bool Simulator::fail(const std::string& entryPoint, FT_STATUS status, int times) {
    if (std::find(kEntryPoints.begin(), kEntryPoints.end(), entryPoint) == kEntryPoints.end() || times < -1) {
        return false;
    }
    Lock lock(mutex_);
    if (times == 0) {
        failures_.erase(entryPoint);
    } else {
        failures_[entryPoint] = Failure{status, times};
    }
    return true;
}

std::optional<std::string> Simulator::callLog(const std::string& serial) {
    Lock lock(mutex_);
    const auto chip = findChip(serial);
    return chip ? std::optional<std::string>(chip->callLog()) : std::nullopt;
}

bool Simulator::clearCallLog(const std::string& serial) {
    Lock lock(mutex_);
    const auto chip = findChip(serial);
    if (chip) {
        chip->clearCallLog();
    }
    return chip != nullptr;
}

std::uint32_t Simulator::openHandles() {
    Lock lock(mutex_);
    return static_cast<std::uint32_t>(handles_.size());
}

// The plugged chip of that serial number, else the unplugged one still named by it.
std::shared_ptr<Chip> Simulator::findChip(const std::string& serial) const {
    const auto named = [&](const Chip& chip) { return chip.description().serial == serial; };
    if (auto chip = findPluggedChip(named)) {
        return chip;
    }
    const auto it =
        std::find_if(chips_.rbegin(), chips_.rend(), [&](const auto& chip) { return named(*chip); });
    return it == chips_.rend() ? nullptr : *it;
}

std::shared_ptr<Chip> Simulator::findPluggedChip(const std::function<bool(const Chip&)>& matches) const {
    const auto it = std::find_if(chips_.begin(), chips_.end(),
                                 [&](const auto& chip) { return chip->plugged() && matches(*chip); });
    return it == chips_.end() ? nullptr : *it;
}

}  // namespace ftdisim
