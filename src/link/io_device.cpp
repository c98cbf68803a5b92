#include "link/io_device.h"

#include <utility>

#include "options/locator.h"

namespace kmio {

IoDevice::IoDevice(std::string locator, std::string options, void* userContext, KM_IO_ReceiveCallback onReceive,
                   KM_IO_LinkErrorCallback onError)
    : locator_(std::move(locator)),
      options_(std::move(options)),
      userContext_(userContext),
      onReceive_(onReceive),
      onError_(onError) {
    // The table only creates a device after classification succeeded, so the
    // result code is of no interest here.
    (void)classifyLocator(locator_, interfaceType_);
}

IoDevice::~IoDevice() = default;

}  // namespace kmio
