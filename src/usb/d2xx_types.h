#pragma once

// The FTDI D2XX driver interface as the USB link calls it. No driver header
// is available to build against, so the types are declared here from the
// driver's published interface, with fixed widths: the driver's DWORD and
// ULONG are 32 bits on every system it runs on, while unsigned long is 64
// bits on 64-bit Linux. The USB simulator implements the same declarations.

#include <cstddef>
#include <cstdint>

#if defined(_WIN32) && !defined(_WIN64)
#define KMIO_D2XX_CALL __stdcall
#else
#define KMIO_D2XX_CALL
#endif

#if !defined(_WIN32)
#include <pthread.h>
#endif

namespace kmio::d2xx {

using FT_HANDLE = void*;
using FT_STATUS = std::uint32_t;

// FT_STATUS values.
inline constexpr FT_STATUS kOk = 0;
inline constexpr FT_STATUS kInvalidHandle = 1;
inline constexpr FT_STATUS kDeviceNotFound = 2;
inline constexpr FT_STATUS kDeviceNotOpened = 3;
inline constexpr FT_STATUS kIoError = 4;
inline constexpr FT_STATUS kInsufficientResources = 5;
inline constexpr FT_STATUS kInvalidParameter = 6;
inline constexpr FT_STATUS kInvalidBaudRate = 7;
inline constexpr FT_STATUS kInvalidArgs = 16;
inline constexpr FT_STATUS kNotSupported = 17;
inline constexpr FT_STATUS kOtherError = 18;

// FT_DEVICE values the link tells apart.
inline constexpr std::uint32_t kDeviceUnknown = 3;
inline constexpr std::uint32_t kDevice2232H = 6;

// Flags of a device list node.
inline constexpr std::uint32_t kFlagOpened = 1;
inline constexpr std::uint32_t kFlagHighSpeed = 2;

// FT_OpenEx flags.
inline constexpr std::uint32_t kOpenBySerialNumber = 1;
inline constexpr std::uint32_t kOpenByDescription = 2;
inline constexpr std::uint32_t kOpenByLocation = 4;

// FT_Purge mask.
inline constexpr std::uint32_t kPurgeRx = 1;
inline constexpr std::uint32_t kPurgeTx = 2;

// Data characteristics.
inline constexpr std::uint8_t kBits8 = 8;
inline constexpr std::uint8_t kStopBits1 = 0;
inline constexpr std::uint8_t kParityNone = 0;

// Flow control.
inline constexpr std::uint16_t kFlowNone = 0x0000;
inline constexpr std::uint16_t kFlowRtsCts = 0x0100;
inline constexpr std::uint16_t kFlowDtrDsr = 0x0200;
inline constexpr std::uint16_t kFlowXonXoff = 0x0400;

// Event notification mask.
inline constexpr std::uint32_t kEventRxChar = 1;

// Bit modes.
inline constexpr std::uint8_t kBitModeReset = 0x00;
inline constexpr std::uint8_t kBitModeSyncFifo = 0x40;

// One entry of the driver's device list. The layout is the driver's: 104
// bytes on 64-bit systems, 100 on 32-bit ones.
struct FT_DEVICE_LIST_INFO_NODE {
    std::uint32_t Flags;
    std::uint32_t Type;
    std::uint32_t ID;  // vendor id in the high 16 bits, product id in the low 16
    std::uint32_t LocId;
    char SerialNumber[16];
    char Description[64];
    FT_HANDLE ftHandle;
};
static_assert(offsetof(FT_DEVICE_LIST_INFO_NODE, SerialNumber) == 16);
static_assert(offsetof(FT_DEVICE_LIST_INFO_NODE, Description) == 32);
static_assert(offsetof(FT_DEVICE_LIST_INFO_NODE, ftHandle) == 96);
static_assert(sizeof(FT_DEVICE_LIST_INFO_NODE) == (sizeof(void*) == 8 ? 104 : 100));

#if !defined(_WIN32)
// The receive event on Linux: the application initialises it and keeps it
// alive while notification is set; the driver locks eMutex and signals
// eCondVar when the event occurs.
struct EVENT_HANDLE {
    pthread_cond_t eCondVar;
    pthread_mutex_t eMutex;
    int iVar;
};
#endif

// The entry points, in the order the binding resolves them.
using FT_CreateDeviceInfoList_t = FT_STATUS(KMIO_D2XX_CALL*)(std::uint32_t* numDevs);
using FT_GetDeviceInfoList_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_DEVICE_LIST_INFO_NODE* dest, std::uint32_t* numDevs);
using FT_Open_t = FT_STATUS(KMIO_D2XX_CALL*)(int index, FT_HANDLE* handle);
using FT_OpenEx_t = FT_STATUS(KMIO_D2XX_CALL*)(void* arg, std::uint32_t flags, FT_HANDLE* handle);
using FT_Close_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle);
using FT_GetStatus_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t* rxQueue, std::uint32_t* txQueue,
                                                  std::uint32_t* eventStatus);
using FT_Read_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, void* buffer, std::uint32_t toRead,
                                             std::uint32_t* bytesRead);
using FT_Write_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, void* buffer, std::uint32_t toWrite,
                                              std::uint32_t* bytesWritten);
using FT_Purge_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t mask);
using FT_SetBaudRate_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t baud);
using FT_SetDataCharacteristics_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint8_t wordLength,
                                                               std::uint8_t stopBits, std::uint8_t parity);
using FT_SetFlowControl_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint16_t flow, std::uint8_t xon,
                                                       std::uint8_t xoff);
using FT_SetTimeouts_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t readMs, std::uint32_t writeMs);
using FT_SetLatencyTimer_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint8_t ms);
using FT_SetBitMode_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint8_t mask, std::uint8_t mode);
using FT_SetUSBParameters_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t inSize,
                                                         std::uint32_t outSize);
using FT_SetEventNotification_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t mask, void* arg);
using FT_ReadEE_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t wordOffset, std::uint16_t* value);
using FT_EE_Read_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, void* programData);
using FT_EE_UASize_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t* size);
using FT_EE_UARead_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint8_t* buffer, std::uint32_t length,
                                                  std::uint32_t* bytesRead);
using FT_EE_UAWrite_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint8_t* buffer, std::uint32_t length);
// The chip-ID library declares its result as unsigned long, which is 32 bits
// on Windows where it was published; the binding passes a 32-bit value.
using FTID_GetNumDevices_t = FT_STATUS(KMIO_D2XX_CALL*)(std::uint32_t* count);
using FTID_GetChipIDFromHandle_t = FT_STATUS(KMIO_D2XX_CALL*)(FT_HANDLE handle, std::uint32_t* chipId);

}  // namespace kmio::d2xx
