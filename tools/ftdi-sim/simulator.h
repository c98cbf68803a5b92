#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "chip.h"
#include "usb/d2xx_types.h"

namespace ftdisim {

using kmio::d2xx::FT_DEVICE_LIST_INFO_NODE;
using kmio::d2xx::FT_HANDLE;
using kmio::d2xx::FT_STATUS;

// The simulated driver: the chips, the device list of the last
// FT_CreateDeviceInfoList, the open handles and the injected failures, all
// behind one lock, with one condition variable announcing every change. One
// instance per process, never destroyed, because a program's receive threads
// may still call the driver while the program exits.
class Simulator {
public:
    static Simulator& instance();

    // The driver's entry points, with the driver's results.
    FT_STATUS createDeviceInfoList(std::uint32_t* count);
    FT_STATUS getDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* nodes, std::uint32_t* count);
    FT_STATUS open(int index, FT_HANDLE* handle);
    FT_STATUS openEx(void* arg, std::uint32_t flags, FT_HANDLE* handle);
    FT_STATUS close(FT_HANDLE handle);
    FT_STATUS getStatus(FT_HANDLE handle, std::uint32_t* rxQueue, std::uint32_t* txQueue,
                        std::uint32_t* events);
    FT_STATUS read(FT_HANDLE handle, void* buffer, std::uint32_t toRead, std::uint32_t* bytesRead);
    FT_STATUS write(FT_HANDLE handle, const void* buffer, std::uint32_t toWrite, std::uint32_t* bytesWritten);
    FT_STATUS purge(FT_HANDLE handle, std::uint32_t mask);
    FT_STATUS setBaudRate(FT_HANDLE handle, std::uint32_t baud);
    FT_STATUS setTimeouts(FT_HANDLE handle, std::uint32_t readMs, std::uint32_t writeMs);
    FT_STATUS setEventNotification(FT_HANDLE handle, std::uint32_t mask, void* event);
    // A line setting the simulator does not model: only logged.
    FT_STATUS setting(FT_HANDLE handle, const char* entryPoint,
                      std::initializer_list<std::uint32_t> arguments);
    FT_STATUS readEeprom(FT_HANDLE handle, std::uint32_t offset, std::uint16_t* value);
    FT_STATUS readEepromProgram(FT_HANDLE handle);
    FT_STATUS userAreaSize(FT_HANDLE handle, std::uint32_t* size);
    FT_STATUS userAreaRead(FT_HANDLE handle, std::uint8_t* buffer, std::uint32_t length,
                           std::uint32_t* bytesRead);
    FT_STATUS userAreaWrite(FT_HANDLE handle, const std::uint8_t* buffer, std::uint32_t length);
    FT_STATUS chipId(FT_HANDLE handle, std::uint32_t* id);
    FT_STATUS chipCount(std::uint32_t* count);

    // The control interface of ftdi_sim.h.
    void reset();
    bool addChip(std::string_view line, std::string& error);
    bool unplug(const std::string& serial);
    bool feed(const std::string& serial, const std::uint8_t* data, std::size_t length);
    bool signalEvent(const std::string& serial);
    std::size_t takeWritten(const std::string& serial, std::uint8_t* out, std::size_t capacity);
    bool setEcho(const std::string& serial, bool on);
    bool stream(const std::string& serial, std::uint64_t bytes);
    bool fail(const std::string& entryPoint, FT_STATUS status, int times);
    std::optional<std::string> callLog(const std::string& serial);
    bool clearCallLog(const std::string& serial);
    std::uint32_t openHandles();

private:
    struct Handle {
        std::uint64_t id;
        std::shared_ptr<Chip> chip;
        std::uint32_t readTimeoutMs = 0;  // 0: reads wait without limit
        void* event = nullptr;            // from FT_SetEventNotification
        int signalsInFlight = 0;          // signals of `event` under way without the lock
    };
    // A receive event to signal once the lock is released.
    struct PendingSignal {
        std::shared_ptr<Handle> handle;
        void* event = nullptr;
    };
    struct Failure {
        FT_STATUS status;
        int remaining;  // -1: until cleared
    };
    struct ListEntry {
        std::shared_ptr<Chip> chip;
        FT_DEVICE_LIST_INFO_NODE node;
    };
    using Lock = std::unique_lock<std::mutex>;
    using HandleAction = std::function<FT_STATUS(const std::shared_ptr<Handle>&, Lock&)>;

    Simulator();
    void loadChipFile(const char* path);
    bool addChipLocked(std::string_view line, std::string& error);
    std::shared_ptr<Chip> findChip(const std::string& serial) const;
    std::shared_ptr<Chip> findPluggedChip(const std::function<bool(const Chip&)>& matches) const;
    std::shared_ptr<Handle> findHandle(FT_HANDLE handle) const;
    std::optional<FT_STATUS> injectedFailure(const char* entryPoint);
    // Runs a call on an open handle: checks the handle, logs the call when
    // `logArguments` is given, applies an injected failure, answers 4 for an
    // unplugged chip, and otherwise runs `action` under the lock.
    FT_STATUS onHandle(FT_HANDLE handle, const char* entryPoint,
                       const std::optional<std::string>& logArguments, const HandleAction& action);
    FT_STATUS openChip(const std::shared_ptr<Chip>& chip, const char* entryPoint, FT_HANDLE* handle);
    PendingSignal armSignal(const Chip& chip);
    void deliver(const PendingSignal& signal);
    void waitForSignals(const Handle& handle, Lock& lock);

    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::shared_ptr<Chip>> chips_;  // plugged ones, and unplugged ones still named by serial
    std::vector<ListEntry> list_;
    std::map<std::uint64_t, std::shared_ptr<Handle>> handles_;
    std::map<std::string, Failure> failures_;
    std::uint64_t nextHandleId_ = 1;
    std::uint32_t nextLocation_ = 1;
};

}  // namespace ftdisim
