// The thirteen exported functions. Each one only translates C arguments into
// the calls of the objects behind it; the behaviour lives in DeviceTable,
// event_data.cpp and enumeration.cpp.

#include <cstdint>
#include <string_view>

#include "network/network_discovery.h"
#include "interface/device_table.h"
#include "interface/enumeration.h"
#include "interface/event_data.h"
#include "interface/event_record.h"
#include "kmio/kmio.h"
#include "options/locator.h"

namespace {

// A null option string means no options.
std::string_view optionText(const char* options) {
    return options != nullptr ? options : "";
}

// Discovery events reach the application's callback through the table. Set
// up when the library loads, before any discovery channel can exist. Neither
// the table nor the discovery cache is ever destroyed, so host threads still
// raising events at exit find both in place.
[[maybe_unused]] const bool discoveryEventsRouted = [] {
    kmio::DeviceTable& table = kmio::DeviceTable::instance();
    kmio::NetworkDiscovery::instance().setEventSink(
        [&table](std::uint32_t type, const kmio::PropertyRecord& properties) {
            table.raiseEvent(type, properties);
        });
    return true;
}();

}  // namespace

extern "C" {

KM_IO_API uint32_t KM_IO_GetVersion(uint32_t* major, uint32_t* minor, uint32_t* update) {
    *major = KM_IO_VERSION_MAJOR;
    *minor = KM_IO_VERSION_MINOR;
    *update = KM_IO_VERSION_UPDATE;
    return KM_IO_OK;
}

KM_IO_API uint32_t KM_IO_GetLocatorInterfaceType(uint32_t* type, const char* locator) {
    *type = KM_IO_IFACE_NONE;
    if (locator == nullptr) {
        return KM_IO_ERR_BAD_LOCATOR;
    }
    return kmio::classifyLocator(locator, *type);
}

KM_IO_API uint32_t KM_IO_Open(uint32_t* handle, const char* locator, const char* options, void* userContext,
                              KM_IO_ReceiveCallback onReceive, KM_IO_LinkErrorCallback onError) {
    *handle = 0;
    if (locator == nullptr) {
        return KM_IO_ERR_BAD_LOCATOR;
    }
    return kmio::DeviceTable::instance().open(*handle, locator, std::string(optionText(options)), userContext,
                                              onReceive, onError);
}

KM_IO_API uint32_t KM_IO_Close(uint32_t handle, int32_t wait) {
    return kmio::DeviceTable::instance().close(handle, wait != 0);
}

KM_IO_API uint32_t KM_IO_Send(uint32_t handle, const void* data, size_t length) {
    return kmio::DeviceTable::instance().send(handle, static_cast<const std::uint8_t*>(data), length);
}

KM_IO_API uint32_t KM_IO_GetProperty(uint32_t handle, const char* key, char* value, size_t* ioSize) {
    return kmio::DeviceTable::instance().getProperty(handle, key != nullptr ? key : "", value, ioSize);
}

KM_IO_API uint32_t KM_IO_SetEventCallback(KM_IO_EventCallback callback, void* userData) {
    kmio::DeviceTable::instance().setEventCallback(callback, userData);
    return KM_IO_OK;
}

KM_IO_API uint32_t KM_IO_GetErrorEventData(const KM_IO_Event* event, uint32_t* code, char* buffer,
                                           size_t* ioSize) {
    return kmio::readErrorEventData(*event, code, buffer, ioSize);
}

KM_IO_API uint32_t KM_IO_GetDiscoveryEventData(const KM_IO_Event* event, const char* options, char* buffer,
                                               size_t* ioSize) {
    return kmio::readDiscoveryEventData(*event, optionText(options), buffer, ioSize);
}

KM_IO_API uint32_t KM_IO_CanEnumerateDevices(uint32_t interfaceType, uint32_t* can) {
    *can = kmio::canEnumerateDevices(interfaceType) ? 1 : 0;
    return KM_IO_OK;
}

KM_IO_API uint32_t KM_IO_EnumerateDevices(uint32_t interfaceType, const char* options, char* buffer,
                                          size_t* ioSize) {
    return kmio::enumerateDevices(interfaceType, optionText(options), buffer, ioSize);
}

KM_IO_API uint32_t KM_IO_EnumerateInterfaces(const char* options, char* buffer, size_t* ioSize) {
    return kmio::enumerateInterfaces(optionText(options), buffer, ioSize);
}

KM_IO_API uint32_t KM_IO_SetGlobalOptions(const char* options) {
    return kmio::setGlobalOptions(kmio::DeviceTable::instance(), optionText(options));
}

}  // extern "C"
