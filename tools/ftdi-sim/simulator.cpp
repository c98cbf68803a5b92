#include "simulator.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "event_signal.h"

namespace ftdisim {
namespace {

using namespace kmio::d2xx;

constexpr std::uint32_t kMaxBaudRate = 12000000;

FT_HANDLE toPointer(std::uint64_t id) {
    return reinterpret_cast<FT_HANDLE>(static_cast<std::uintptr_t>(id));
}

std::string numbers(std::initializer_list<std::uint32_t> values) {
    std::string text;
    for (std::uint32_t value : values) {
        text += (text.empty() ? "" : " ") + std::to_string(value);
    }
    return text;
}

template <std::size_t N>
void copyText(char (&field)[N], const std::string& text) {
    std::memset(field, 0, N);
    std::memcpy(field, text.data(), std::min(text.size(), N - 1));
}

// What FT_OpenEx looks for: a serial number, a description or a location id.
std::optional<std::function<bool(const Chip&)>> openExMatcher(void* arg, std::uint32_t flags) {
    if (flags == kOpenBySerialNumber && arg != nullptr) {
        return [serial = std::string(static_cast<const char*>(arg))](const Chip& chip) {
            return chip.description().serial == serial;
        };
    }
    if (flags == kOpenByDescription && arg != nullptr) {
        return [description = std::string(static_cast<const char*>(arg))](const Chip& chip) {
            return chip.description().description == description;
        };
    }
    if (flags == kOpenByLocation) {
        return [location = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(arg))](
                   const Chip& chip) { return chip.location() == location; };
    }
    return std::nullopt;
}

}  // namespace

Simulator& Simulator::instance() {
    static Simulator* const simulator = new Simulator();
    return *simulator;
}

FT_STATUS Simulator::createDeviceInfoList(std::uint32_t* count) {
    Lock lock(mutex_);
    if (const auto failure = injectedFailure("FT_CreateDeviceInfoList")) {
        return *failure;
    }
    if (count == nullptr) {
        return kInvalidParameter;
    }
    list_.clear();
    for (const auto& chip : chips_) {
        if (!chip->plugged()) {
            continue;
        }
        const ChipDescription& d = chip->description();
        FT_DEVICE_LIST_INFO_NODE node{};
        node.Flags = (chip->openHandle() != 0 ? kFlagOpened : 0) | (d.highSpeed ? kFlagHighSpeed : 0);
        node.Type = d.type;
        node.ID = static_cast<std::uint32_t>(d.vid) << 16 | d.pid;
        node.LocId = chip->location();
        copyText(node.SerialNumber, d.serial);
        copyText(node.Description, d.description);
        node.ftHandle = chip->openHandle() != 0 ? toPointer(chip->openHandle()) : nullptr;
        list_.push_back({chip, node});
    }
    *count = static_cast<std::uint32_t>(list_.size());
    return kOk;
}

FT_STATUS Simulator::getDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* nodes, std::uint32_t* count) {
    Lock lock(mutex_);
    if (const auto failure = injectedFailure("FT_GetDeviceInfoList")) {
        return *failure;
    }
    if (nodes == nullptr || count == nullptr) {
        return kInvalidParameter;
    }
    for (std::size_t i = 0; i < list_.size(); ++i) {
        nodes[i] = list_[i].node;
    }
    *count = static_cast<std::uint32_t>(list_.size());
    return kOk;
}

FT_STATUS Simulator::open(int index, FT_HANDLE* handle) {
    Lock lock(mutex_);
    const bool listed = index >= 0 && static_cast<std::size_t>(index) < list_.size();
    return openChip(listed ? list_[static_cast<std::size_t>(index)].chip : nullptr, "FT_Open", handle);
}

FT_STATUS Simulator::openEx(void* arg, std::uint32_t flags, FT_HANDLE* handle) {
    Lock lock(mutex_);
    const auto matches = openExMatcher(arg, flags);
    if (!matches) {
        return injectedFailure("FT_OpenEx").value_or(kInvalidParameter);
    }
    return openChip(findPluggedChip(*matches), "FT_OpenEx", handle);
}

FT_STATUS Simulator::openChip(const std::shared_ptr<Chip>& chip, const char* entryPoint, FT_HANDLE* handle) {
    if (chip) {
        chip->log(entryPoint);
    }
    if (const auto failure = injectedFailure(entryPoint)) {
        return *failure;
    }
    if (handle == nullptr) {
        return kInvalidParameter;
    }
    if (!chip || !chip->plugged()) {
        return kDeviceNotFound;
    }
    if (chip->openHandle() != 0) {
        return kDeviceNotOpened;
    }
    const std::uint64_t id = nextHandleId_++;
    handles_[id] = std::make_shared<Handle>(Handle{id, chip});
    chip->setOpenHandle(id);
    *handle = toPointer(id);
    return kOk;
}

FT_STATUS Simulator::close(FT_HANDLE h) {
    Lock lock(mutex_);
    const auto handle = findHandle(h);
    if (!handle) {
        return kInvalidHandle;
    }
    handle->chip->log("FT_Close");
    if (const auto failure = injectedFailure("FT_Close")) {
        return *failure;
    }
    waitForSignals(*handle, lock);
    if (handles_.erase(handle->id) == 0) {
        return kInvalidHandle;  // closed by another thread meanwhile
    }
    handle->event = nullptr;
    handle->chip->setOpenHandle(0);
    changed_.notify_all();
    return kOk;
}

FT_STATUS Simulator::getStatus(FT_HANDLE h, std::uint32_t* rxQueue, std::uint32_t* txQueue,
                               std::uint32_t* events) {
    return onHandle(h, "FT_GetStatus", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock&) {
        if (rxQueue == nullptr) {
            return kInvalidParameter;
        }
        *rxQueue = static_cast<std::uint32_t>(handle->chip->received());
        if (txQueue != nullptr) {
            *txQueue = 0;
        }
        if (events != nullptr) {
            *events = 0;
        }
        return kOk;
    });
}

FT_STATUS Simulator::read(FT_HANDLE h, void* buffer, std::uint32_t toRead, std::uint32_t* bytesRead) {
    PendingSignal signal;
    const FT_STATUS status =
        onHandle(h, "FT_Read", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock& lock) {
            if (bytesRead == nullptr || (buffer == nullptr && toRead > 0)) {
                return kInvalidParameter;
            }
            auto* out = static_cast<std::uint8_t*>(buffer);
            Chip& chip = *handle->chip;
            const auto deadline =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(handle->readTimeoutMs);
            std::uint32_t done = 0;
            bool refilled = false;
            for (;;) {
                done += static_cast<std::uint32_t>(chip.takeReceived(out + done, toRead - done));
                refilled = chip.refillStream() || refilled;
                if (done == toRead) {
                    break;
                }
                if (chip.received() > 0) {
                    continue;
                }
                if (handle->readTimeoutMs == 0) {
                    changed_.wait(lock);
                } else if (changed_.wait_until(lock, deadline) == std::cv_status::timeout) {
                    break;
                }
                if (!handles_.contains(handle->id)) {
                    return kInvalidHandle;
                }
                if (!chip.plugged()) {
                    return kIoError;
                }
            }
            *bytesRead = done;
            if (refilled) {
                signal = armSignal(chip);
            }
            return kOk;
        });
    deliver(signal);
    return status;
}

FT_STATUS Simulator::write(FT_HANDLE h, const void* buffer, std::uint32_t toWrite,
                           std::uint32_t* bytesWritten) {
    PendingSignal signal;
    const FT_STATUS status =
        onHandle(h, "FT_Write", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock&) {
            if (bytesWritten == nullptr || (buffer == nullptr && toWrite > 0)) {
                return kInvalidParameter;
            }
            if (handle->chip->hostWrote(static_cast<const std::uint8_t*>(buffer), toWrite)) {
                signal = armSignal(*handle->chip);
                changed_.notify_all();
            }
            *bytesWritten = toWrite;
            return kOk;
        });
    deliver(signal);
    return status;
}

FT_STATUS Simulator::purge(FT_HANDLE h, std::uint32_t mask) {
    return onHandle(h, "FT_Purge", numbers({mask}), [&](const std::shared_ptr<Handle>& handle, Lock&) {
        if ((mask & kPurgeRx) != 0) {
            handle->chip->purgeReceived();
        }
        return kOk;
    });
}

FT_STATUS Simulator::setBaudRate(FT_HANDLE h, std::uint32_t baud) {
    return onHandle(h, "FT_SetBaudRate", numbers({baud}), [&](const std::shared_ptr<Handle>&, Lock&) {
        return baud == 0 || baud > kMaxBaudRate ? kInvalidBaudRate : kOk;
    });
}

FT_STATUS Simulator::setTimeouts(FT_HANDLE h, std::uint32_t readMs, std::uint32_t writeMs) {
    return onHandle(h, "FT_SetTimeouts", numbers({readMs, writeMs}),
                    [&](const std::shared_ptr<Handle>& handle, Lock&) {
                        handle->readTimeoutMs = readMs;
                        return kOk;
                    });
}

FT_STATUS Simulator::setEventNotification(FT_HANDLE h, std::uint32_t mask, void* event) {
    return onHandle(h, "FT_SetEventNotification", numbers({mask}),
                    [&](const std::shared_ptr<Handle>& handle, Lock& lock) {
                        waitForSignals(*handle, lock);
                        if (!handles_.contains(handle->id)) {
                            return kInvalidHandle;
                        }
                        handle->event = (mask & kEventRxChar) != 0 ? event : nullptr;
                        return kOk;
                    });
}

FT_STATUS Simulator::setting(FT_HANDLE h, const char* entryPoint,
                             std::initializer_list<std::uint32_t> arguments) {
    return onHandle(h, entryPoint, numbers(arguments),
                    [](const std::shared_ptr<Handle>&, Lock&) { return kOk; });
}

FT_STATUS Simulator::readEeprom(FT_HANDLE h, std::uint32_t offset, std::uint16_t* value) {
    return onHandle(h, "FT_ReadEE", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock&) {
        if (value == nullptr) {
            return kInvalidParameter;
        }
        *value = handle->chip->eepromWord(offset);
        return kOk;
    });
}

FT_STATUS Simulator::readEepromProgram(FT_HANDLE h) {
    return onHandle(h, "FT_EE_Read", std::nullopt,
                    [](const std::shared_ptr<Handle>&, Lock&) { return kNotSupported; });
}

FT_STATUS Simulator::userAreaSize(FT_HANDLE h, std::uint32_t* size) {
    return onHandle(h, "FT_EE_UASize", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock&) {
        if (size == nullptr) {
            return kInvalidParameter;
        }
        *size = static_cast<std::uint32_t>(handle->chip->userArea().size());
        return kOk;
    });
}

FT_STATUS Simulator::userAreaRead(FT_HANDLE h, std::uint8_t* buffer, std::uint32_t length,
                                  std::uint32_t* bytesRead) {
    return onHandle(h, "FT_EE_UARead", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock&) {
        if (buffer == nullptr || bytesRead == nullptr) {
            return kInvalidParameter;
        }
        const auto& area = handle->chip->userArea();
        const std::size_t n = std::min<std::size_t>(length, area.size());
        std::copy_n(area.begin(), n, buffer);
        *bytesRead = static_cast<std::uint32_t>(n);
        return kOk;
    });
}

FT_STATUS Simulator::userAreaWrite(FT_HANDLE h, const std::uint8_t* buffer, std::uint32_t length) {
    return onHandle(h, "FT_EE_UAWrite", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock&) {
        auto& area = handle->chip->userArea();
        if (buffer == nullptr || length > area.size()) {
            return kInvalidParameter;
        }
        std::copy_n(buffer, length, area.begin());
        return kOk;
    });
}

FT_STATUS Simulator::chipId(FT_HANDLE h, std::uint32_t* id) {
    return onHandle(
        h, "FTID_GetChipIDFromHandle", std::nullopt, [&](const std::shared_ptr<Handle>& handle, Lock&) {
            const auto& chipId = handle->chip->description().chipId;
            if (id == nullptr) {
                return kInvalidParameter;
            }
            if (!chipId) {
                return kInvalidHandle;  // what the chip-ID library answers for a chip without an id
            }
            *id = *chipId;
            return kOk;
        });
}

FT_STATUS Simulator::chipCount(std::uint32_t* count) {
    Lock lock(mutex_);
    if (const auto failure = injectedFailure("FTID_GetNumDevices")) {
        return *failure;
    }
    if (count == nullptr) {
        return kInvalidParameter;
    }
    *count = static_cast<std::uint32_t>(
        std::count_if(chips_.begin(), chips_.end(), [](const auto& chip) { return chip->plugged(); }));
    return kOk;
}

std::shared_ptr<Simulator::Handle> Simulator::findHandle(FT_HANDLE handle) const {
    const auto it = handles_.find(static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(handle)));
    return it == handles_.end() ? nullptr : it->second;
}

std::optional<FT_STATUS> Simulator::injectedFailure(const char* entryPoint) {
    const auto it = failures_.find(entryPoint);
    if (it == failures_.end()) {
        return std::nullopt;
    }
    const FT_STATUS status = it->second.status;
    if (it->second.remaining > 0 && --it->second.remaining == 0) {
        failures_.erase(it);
    }
    return status;
}

FT_STATUS Simulator::onHandle(FT_HANDLE h, const char* entryPoint,
                              const std::optional<std::string>& logArguments, const HandleAction& action) {
    Lock lock(mutex_);
    const auto handle = findHandle(h);
    if (!handle) {
        return kInvalidHandle;
    }
    if (logArguments) {
        handle->chip->log(logArguments->empty() ? entryPoint : entryPoint + (" " + *logArguments));
    }
    if (const auto failure = injectedFailure(entryPoint)) {
        return *failure;
    }
    if (!handle->chip->plugged()) {
        return kIoError;
    }
    return action(handle, lock);
}

Simulator::PendingSignal Simulator::armSignal(const Chip& chip) {
    const auto it = handles_.find(chip.openHandle());
    if (it == handles_.end() || it->second->event == nullptr) {
        return {};
    }
    ++it->second->signalsInFlight;
    return {it->second, it->second->event};
}

// The receive event is signalled without the simulator's lock, so that a
// program may call the driver while it holds the event's mutex. Closing the
// handle or changing its event waits until the signal is over, so the event
// is never used after the program was told it is free.
void Simulator::deliver(const PendingSignal& signal) {
    if (signal.event == nullptr) {
        return;
    }
    signalReceiveEvent(signal.event);
    Lock lock(mutex_);
    --signal.handle->signalsInFlight;
    changed_.notify_all();
}

void Simulator::waitForSignals(const Handle& handle, Lock& lock) {
    changed_.wait(lock, [&] { return handle.signalsInFlight == 0; });
}

}  // namespace ftdisim
