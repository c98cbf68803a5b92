// The driver's entry points, exported undecorated with the driver's argument
// lists; each hands over to the one simulator of the process.

#include <type_traits>

#include "ftdi_sim.h"
#include "simulator.h"

using namespace kmio::d2xx;
using ftdisim::Simulator;

extern "C" {

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_CreateDeviceInfoList(std::uint32_t* numDevs) {
    return Simulator::instance().createDeviceInfoList(numDevs);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_GetDeviceInfoList(FT_DEVICE_LIST_INFO_NODE* dest,
                                                          std::uint32_t* numDevs) {
    return Simulator::instance().getDeviceInfoList(dest, numDevs);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_Open(int index, FT_HANDLE* handle) {
    return Simulator::instance().open(index, handle);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_OpenEx(void* arg, std::uint32_t flags, FT_HANDLE* handle) {
    return Simulator::instance().openEx(arg, flags, handle);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_Close(FT_HANDLE handle) {
    return Simulator::instance().close(handle);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_GetStatus(FT_HANDLE handle, std::uint32_t* rxQueue,
                                                  std::uint32_t* txQueue, std::uint32_t* eventStatus) {
    return Simulator::instance().getStatus(handle, rxQueue, txQueue, eventStatus);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_Read(FT_HANDLE handle, void* buffer, std::uint32_t toRead,
                                             std::uint32_t* bytesRead) {
    return Simulator::instance().read(handle, buffer, toRead, bytesRead);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_Write(FT_HANDLE handle, void* buffer, std::uint32_t toWrite,
                                              std::uint32_t* bytesWritten) {
    return Simulator::instance().write(handle, buffer, toWrite, bytesWritten);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_Purge(FT_HANDLE handle, std::uint32_t mask) {
    return Simulator::instance().purge(handle, mask);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetBaudRate(FT_HANDLE handle, std::uint32_t baud) {
    return Simulator::instance().setBaudRate(handle, baud);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetDataCharacteristics(FT_HANDLE handle, std::uint8_t wordLength,
                                                               std::uint8_t stopBits, std::uint8_t parity) {
    return Simulator::instance().setting(handle, "FT_SetDataCharacteristics", {wordLength, stopBits, parity});
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetFlowControl(FT_HANDLE handle, std::uint16_t flow, std::uint8_t xon,
                                                       std::uint8_t xoff) {
    return Simulator::instance().setting(handle, "FT_SetFlowControl", {flow, xon, xoff});
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetTimeouts(FT_HANDLE handle, std::uint32_t readMs,
                                                    std::uint32_t writeMs) {
    return Simulator::instance().setTimeouts(handle, readMs, writeMs);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetLatencyTimer(FT_HANDLE handle, std::uint8_t ms) {
    return Simulator::instance().setting(handle, "FT_SetLatencyTimer", {ms});
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetBitMode(FT_HANDLE handle, std::uint8_t mask, std::uint8_t mode) {
    return Simulator::instance().setting(handle, "FT_SetBitMode", {mask, mode});
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetUSBParameters(FT_HANDLE handle, std::uint32_t inSize,
                                                         std::uint32_t outSize) {
    return Simulator::instance().setting(handle, "FT_SetUSBParameters", {inSize, outSize});
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_SetEventNotification(FT_HANDLE handle, std::uint32_t mask,
                                                             void* arg) {
    return Simulator::instance().setEventNotification(handle, mask, arg);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_ReadEE(FT_HANDLE handle, std::uint32_t wordOffset,
                                               std::uint16_t* value) {
    return Simulator::instance().readEeprom(handle, wordOffset, value);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_EE_Read(FT_HANDLE handle, void*) {
    return Simulator::instance().readEepromProgram(handle);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_EE_UASize(FT_HANDLE handle, std::uint32_t* size) {
    return Simulator::instance().userAreaSize(handle, size);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_EE_UARead(FT_HANDLE handle, std::uint8_t* buffer,
                                                  std::uint32_t length, std::uint32_t* bytesRead) {
    return Simulator::instance().userAreaRead(handle, buffer, length, bytesRead);
}

FTDISIM_API FT_STATUS KMIO_D2XX_CALL FT_EE_UAWrite(FT_HANDLE handle, std::uint8_t* buffer,
                                                   std::uint32_t length) {
    return Simulator::instance().userAreaWrite(handle, buffer, length);
}

}  // extern "C"

// Each export has exactly the type the binding resolves it as.
static_assert(std::is_same_v<decltype(&FT_CreateDeviceInfoList), FT_CreateDeviceInfoList_t>);
static_assert(std::is_same_v<decltype(&FT_GetDeviceInfoList), FT_GetDeviceInfoList_t>);
static_assert(std::is_same_v<decltype(&FT_Open), FT_Open_t>);
static_assert(std::is_same_v<decltype(&FT_OpenEx), FT_OpenEx_t>);
static_assert(std::is_same_v<decltype(&FT_Close), FT_Close_t>);
static_assert(std::is_same_v<decltype(&FT_GetStatus), FT_GetStatus_t>);
static_assert(std::is_same_v<decltype(&FT_Read), FT_Read_t>);
static_assert(std::is_same_v<decltype(&FT_Write), FT_Write_t>);
static_assert(std::is_same_v<decltype(&FT_Purge), FT_Purge_t>);
static_assert(std::is_same_v<decltype(&FT_SetBaudRate), FT_SetBaudRate_t>);
static_assert(std::is_same_v<decltype(&FT_SetDataCharacteristics), FT_SetDataCharacteristics_t>);
static_assert(std::is_same_v<decltype(&FT_SetFlowControl), FT_SetFlowControl_t>);
static_assert(std::is_same_v<decltype(&FT_SetTimeouts), FT_SetTimeouts_t>);
static_assert(std::is_same_v<decltype(&FT_SetLatencyTimer), FT_SetLatencyTimer_t>);
static_assert(std::is_same_v<decltype(&FT_SetBitMode), FT_SetBitMode_t>);
static_assert(std::is_same_v<decltype(&FT_SetUSBParameters), FT_SetUSBParameters_t>);
static_assert(std::is_same_v<decltype(&FT_SetEventNotification), FT_SetEventNotification_t>);
static_assert(std::is_same_v<decltype(&FT_ReadEE), FT_ReadEE_t>);
static_assert(std::is_same_v<decltype(&FT_EE_Read), FT_EE_Read_t>);
static_assert(std::is_same_v<decltype(&FT_EE_UASize), FT_EE_UASize_t>);
static_assert(std::is_same_v<decltype(&FT_EE_UARead), FT_EE_UARead_t>);
static_assert(std::is_same_v<decltype(&FT_EE_UAWrite), FT_EE_UAWrite_t>);
