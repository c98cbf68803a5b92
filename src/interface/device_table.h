#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "kmio/kmio.h"
#include "link/io_device.h"
#include "options/property_record.h"

namespace kmio {

// Creates a device object, constructed but not opened (see makeDevice).
using DeviceFactory = std::function<std::shared_ptr<IoDevice>(
    std::uint32_t interfaceType, const std::string& locator, const std::string& options, void* userContext,
    KM_IO_ReceiveCallback onReceive, KM_IO_LinkErrorCallback onError)>;

// The handles of open devices: 64 slots, each empty or holding one opened
// device, and the registration of the process-wide event callback. One
// mutex guards both. It is held only to scan or change slots and while the
// event callback runs; no device operation ever runs under it.
//
// The mutex is not recursive. A table operation called from inside the event
// callback (on the thread that runs it) would deadlock, so it throws
// std::system_error(resource_deadlock_would_occur) instead.
class DeviceTable {
public:
    static constexpr std::uint32_t kSlotCount = 64;

    explicit DeviceTable(DeviceFactory factory);
    DeviceTable(const DeviceTable&) = delete;
    DeviceTable& operator=(const DeviceTable&) = delete;
    ~DeviceTable();

    // Opens the device the locator names, then stores it in the lowest free
    // slot. handle is 0 unless the result is KM_IO_OK. The device is opened
    // before a slot is looked for; when none is free it is closed again and
    // the result is KM_IO_ERR_NO_FREE_HANDLE.
    std::uint32_t open(std::uint32_t& handle, const std::string& locator, const std::string& options,
                       void* userContext, KM_IO_ReceiveCallback onReceive, KM_IO_LinkErrorCallback onError);

    // Empties the slot at once, then closes the device outside the mutex,
    // waiting for its receiving thread when wait is true.
    std::uint32_t close(std::uint32_t handle, bool wait);

    // Run the device operation on a copied reference, outside the mutex, so
    // that a concurrent close cannot free the device under the call.
    std::uint32_t send(std::uint32_t handle, const std::uint8_t* data, std::size_t length);
    std::uint32_t getProperty(std::uint32_t handle, const char* key, char* value, std::size_t* ioSize);

    // A null callback switches event delivery off.
    void setEventCallback(KM_IO_EventCallback callback, void* userData);

    // Builds a discovery event record (interface type network) and hands it to
    // the registered callback, if any, with the mutex held. The caller must
    // not hold the discovery lock.
    void raiseEvent(std::uint32_t type, const PropertyRecord& properties);

    // Runs fn with the mutex held, so that it never overlaps a table operation
    // or an event callback (KM_IO_SetGlobalOptions).
    template <class Fn>
    decltype(auto) runLocked(Fn&& fn) {
        std::unique_lock<std::mutex> lock = lockTable();
        return std::forward<Fn>(fn)();
    }

    // Throws std::system_error(resource_deadlock_would_occur) when this
    // thread is running this table's event callback and so holds the mutex.
    void throwIfInEventCallback() const;
    bool runningEventCallback() const noexcept;

private:
    // Locks the mutex, or throws as throwIfInEventCallback does.
    std::unique_lock<std::mutex> lockTable();
    // A copy of the slot's reference; null for an empty slot or a bad handle.
    std::shared_ptr<IoDevice> deviceAt(std::uint32_t handle);

    DeviceFactory factory_;
    std::mutex mutex_;
    std::array<std::shared_ptr<IoDevice>, kSlotCount> slots_;
    KM_IO_EventCallback callback_ = nullptr;
    void* userData_ = nullptr;
};

}  // namespace kmio
