#include "interface/device_table.h"

#include <system_error>

#include "interface/device_factory.h"
#include "interface/event_record.h"
#include "link/result_translation.h"
#include "options/locator.h"

namespace kmio {

namespace {

// The table whose event callback this thread is running, if any. The callback
// runs with the table mutex held, so this thread must not lock it again.
thread_local const DeviceTable* tableInCallback = nullptr;

class EventCallbackScope {
public:
    explicit EventCallbackScope(const DeviceTable* table) : previous_(tableInCallback) {
        tableInCallback = table;
    }
    EventCallbackScope(const EventCallbackScope&) = delete;
    EventCallbackScope& operator=(const EventCallbackScope&) = delete;
    ~EventCallbackScope() { tableInCallback = previous_; }

private:
    const DeviceTable* previous_;
};

}  // namespace

DeviceTable::DeviceTable(DeviceFactory factory) : factory_(std::move(factory)) {}

DeviceTable::~DeviceTable() = default;

std::unique_lock<std::mutex> DeviceTable::lockTable() {
    throwIfInEventCallback();
    return std::unique_lock<std::mutex>(mutex_);
}

bool DeviceTable::runningEventCallback() const noexcept {
    return tableInCallback == this;
}

void DeviceTable::throwIfInEventCallback() const {
    if (runningEventCallback()) {
        throw std::system_error(std::make_error_code(std::errc::resource_deadlock_would_occur),
                                "table function called from the event callback");
    }
}

std::uint32_t DeviceTable::open(std::uint32_t& handle, const std::string& locator, const std::string& options,
                                void* userContext, KM_IO_ReceiveCallback onReceive,
                                KM_IO_LinkErrorCallback onError) {
    handle = 0;
    // Checked before anything is opened, so that a call from the event
    // callback does not leave an opened device behind when the lock throws.
    throwIfInEventCallback();

    std::uint32_t type = KM_IO_IFACE_NONE;
    if (classifyLocator(locator, type) != KM_IO_OK) {
        return KM_IO_ERR_BAD_LOCATOR;
    }

    std::shared_ptr<IoDevice> device;
    // open() translates its own failures; this covers making the device.
    const std::uint32_t opened = resultOf(OperationKind::Open, [&] {
        device = factory_(type, locator, options, userContext, onReceive, onError);
        if (!device) {
            // This build has no class for the link.
            return KM_IO_ERR_OPEN_FAILED;
        }
        return device->open(device);
    });
    if (opened != KM_IO_OK) {
        return opened;
    }

    std::unique_lock<std::mutex> lock = lockTable();
    for (std::uint32_t slot = 0; slot < kSlotCount; ++slot) {
        if (!slots_[slot]) {
            slots_[slot] = std::move(device);
            lock.unlock();
            handle = slot;
            return KM_IO_OK;
        }
    }
    lock.unlock();
    // The receiving thread holds its own reference to the device, so dropping
    // ours alone would leave the link open for good: stop the thread first.
    device->close(true);
    return KM_IO_ERR_NO_FREE_HANDLE;
}

std::uint32_t DeviceTable::close(std::uint32_t handle, bool wait) {
    if (handle >= kSlotCount) {
        return KM_IO_ERR_INVALID_HANDLE;
    }
    std::shared_ptr<IoDevice> device;
    {
        std::unique_lock<std::mutex> lock = lockTable();
        device = std::move(slots_[handle]);
        slots_[handle].reset();
    }
    if (!device) {
        return KM_IO_ERR_INVALID_HANDLE;
    }
    device->close(wait);
    return KM_IO_OK;
}

std::shared_ptr<IoDevice> DeviceTable::deviceAt(std::uint32_t handle) {
    // A handle past the table can never be valid; no need to lock for it.
    if (handle >= kSlotCount) {
        return nullptr;
    }
    std::unique_lock<std::mutex> lock = lockTable();
    return slots_[handle];
}

std::uint32_t DeviceTable::send(std::uint32_t handle, const std::uint8_t* data, std::size_t length) {
    const std::shared_ptr<IoDevice> device = deviceAt(handle);
    if (!device) {
        return KM_IO_ERR_INVALID_HANDLE;
    }
    return resultOf(OperationKind::Send, [&] { return device->send(data, length); });
}

std::uint32_t DeviceTable::getProperty(std::uint32_t handle, const char* key, char* value,
                                       std::size_t* ioSize) {
    const std::shared_ptr<IoDevice> device = deviceAt(handle);
    if (!device) {
        return KM_IO_ERR_INVALID_HANDLE;
    }
    return resultOf(OperationKind::Property, [&] { return device->getProperty(key, value, ioSize); });
}

void DeviceTable::setEventCallback(KM_IO_EventCallback callback, void* userData) {
    std::unique_lock<std::mutex> lock = lockTable();
    callback_ = callback;
    userData_ = userData;
}

void DeviceTable::raiseEvent(std::uint32_t type, const PropertyRecord& properties) {
    KM_IO_Event event;
    event.type = type;
    event.interfaceType = KM_IO_IFACE_NETWORK;
    event.properties = properties;

    std::unique_lock<std::mutex> lock = lockTable();
    if (callback_ == nullptr) {
        return;
    }
    EventCallbackScope scope(this);
    callback_(userData_, type, &event);
}

}  // namespace kmio
