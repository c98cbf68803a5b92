// The thirteen exported functions. Each one only translates C arguments into
// the calls of the objects behind it; the behaviour lives in DeviceTable,
// event_data.cpp, enumeration.cpp and global_options.cpp, over the library's
// process's parts (process.h), which also wires the discovery cache's events
// to the device table.

#include <cstdint>
#include <string_view>

#include "interface/enumeration.h"
#include "interface/event_data.h"
#include "interface/event_record.h"
#include "interface/global_options.h"
#include "interface/process.h"
#include "kmio/kmio.h"
#include "options/locator.h"

namespace {

// A null option string means no options.
std::string_view optionText(const char* options) {
    return options != nullptr ? options : "";
}

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
    return kmio::Process::instance().devices().open(*handle, locator, std::string(optionText(options)),
                                                    userContext, onReceive, onError);
}

KM_IO_API uint32_t KM_IO_Close(uint32_t handle, int32_t wait) {
    return kmio::Process::instance().devices().close(handle, wait != 0);
}

KM_IO_API uint32_t KM_IO_Send(uint32_t handle, const void* data, size_t length) {
    return kmio::Process::instance().devices().send(handle, static_cast<const std::uint8_t*>(data), length);
}

KM_IO_API uint32_t KM_IO_GetProperty(uint32_t handle, const char* key, char* value, size_t* ioSize) {
    return kmio::Process::instance().devices().getProperty(handle, key != nullptr ? key : "", value, ioSize);
}

KM_IO_API uint32_t KM_IO_SetEventCallback(KM_IO_EventCallback callback, void* userData) {
    kmio::Process::instance().devices().setEventCallback(callback, userData);
    return KM_IO_OK;
}

KM_IO_API uint32_t KM_IO_GetErrorEventData(const KM_IO_Event* event, uint32_t* code, char* buffer,
                                           size_t* ioSize) {
    // No record is no error event either.
    if (event == nullptr) {
        return KM_IO_ERR_WRONG_EVENT_TYPE;
    }
    return kmio::readErrorEventData(*event, code, buffer, ioSize);
}

KM_IO_API uint32_t KM_IO_GetDiscoveryEventData(const KM_IO_Event* event, const char* options, char* buffer,
                                               size_t* ioSize) {
    if (event == nullptr) {
        return KM_IO_ERR_WRONG_EVENT_TYPE;
    }
    return kmio::readDiscoveryEventData(*event, optionText(options), buffer, ioSize);
}

KM_IO_API uint32_t KM_IO_CanEnumerateDevices(uint32_t interfaceType, uint32_t* can) {
    *can = kmio::canEnumerateDevices(interfaceType) ? 1 : 0;
    return KM_IO_OK;
}

KM_IO_API uint32_t KM_IO_EnumerateDevices(uint32_t interfaceType, const char* options, char* buffer,
                                          size_t* ioSize) {
    return kmio::enumerateDevices(kmio::Process::instance(), interfaceType, optionText(options), buffer,
                                  ioSize);
}

KM_IO_API uint32_t KM_IO_EnumerateInterfaces(const char* options, char* buffer, size_t* ioSize) {
    return kmio::enumerateInterfaces(kmio::Process::instance().serialPorts(), optionText(options), buffer,
                                     ioSize);
}

KM_IO_API uint32_t KM_IO_SetGlobalOptions(const char* options) {
    return kmio::setGlobalOptions(kmio::Process::instance().devices(), kmio::Process::instance().discovery(),
                                  optionText(options));
}

}  // extern "C"
