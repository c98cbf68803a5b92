/* Control interface of the simulated FTDI D2XX driver (libftd2xx.so, on
 * Windows ftd2xx.dll, built by this project). Tests and tools reach these
 * functions through the same loaded instance the library uses:
 * dlopen("libftd2xx.so") and dlsym, or LoadLibraryA("ftd2xx.dll") and
 * GetProcAddress.
 *
 * Chips are named by serial number. Every function is thread-safe and
 * returns 0 on success and -1 on failure (unknown serial, bad line), unless
 * said otherwise.
 *
 * A chip is described by one line of whitespace-separated key=value fields;
 * values may be double-quoted to hold blanks (inside quotes a backslash keeps
 * the next character, and both stay in the value; only ua reads escapes).
 * The file named by the
 * environment variable FTDISIM_CONFIG holds one such line per chip ('#'
 * starts a comment) and is read when the simulator is first used.
 *
 *   serial=KM000001            up to 15 characters (required, may be "")
 *   description="Kalomet X"    up to 63 characters (default "FT232R USB UART")
 *   type=5                     FT_DEVICE value (default 5)
 *   highspeed=0|1              list flag bit 1 (default 0)
 *   vid=0x0403 pid=0x6001      decimal or 0x hex (defaults as shown)
 *   location=N                 location id (default: order of addition, from 1)
 *   ua=KMIO\x0a                EEPROM user area, C escapes allowed (default empty)
 *   ee43=0xNNNN ee44=0xNNNN    EEPROM words 0x43 and 0x44; other words read 0xFFFF
 *   chipid=N                   what the chip-ID library reports (absent: it fails with status 1)
 *   protocols=146,147          protocol ids of the probe answer
 *   reply240=N                 a type-240 frame with this 16-bit value between the 128 and 133 answers
 *   probe=answer|garbage|silent|bad128   how the chip answers the protocol-id probe (default answer)
 *   echo=1|0                   written bytes come back (1, default) or are kept for FtdiSim_TakeWritten
 *
 * The simulator signals a handle's EVENT_HANDLE (lock eMutex, signal
 * eCondVar, unlock; on Windows it sets the event handle instead) from the
 * thread that adds received bytes, without holding its own lock, so a
 * program may call the driver while holding eMutex. It must not call
 * FT_Close or FT_SetEventNotification while holding eMutex.
 */
#ifndef KMIO_FTDI_SIM_H
#define KMIO_FTDI_SIM_H

#include <stddef.h>
#include <stdint.h>

#if defined(_WIN32)
#if defined(FTDISIM_BUILDING)
#define FTDISIM_API __declspec(dllexport)
#else
#define FTDISIM_API __declspec(dllimport)
#endif
#else
#define FTDISIM_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* No chips, no failures, empty logs. Open handles stay valid but their
 * chips are gone (status 4). Does not reread FTDISIM_CONFIG. */
FTDISIM_API int FtdiSim_Reset(void);

/* Adds one chip described by a line as above, plugged in at once. Fails on a
 * bad line or when a plugged chip already has that serial number. */
FTDISIM_API int FtdiSim_AddChip(const char* line);

/* The chip vanishes from later lists; calls on its open handles give status
 * 4 (except FT_Close). The receive event is not signalled (FtdiSim_SignalEvent
 * does that, as a driver would on the status change). The chip's logs stay
 * readable until a chip with the same serial number is added or the
 * simulator is reset. */
FTDISIM_API int FtdiSim_Unplug(const char* serial);

/* Bytes from the device: queued for reading and the receive event signalled.
 * Fails for an unplugged chip. */
FTDISIM_API int FtdiSim_Feed(const char* serial, const void* data, uint32_t length);

/* Signals the receive event with no data, as a driver does on a status change. */
FTDISIM_API int FtdiSim_SignalEvent(const char* serial);

/* Bytes the host wrote while echo was off, oldest first, removed as taken.
 * Returns the count copied (0 for an unknown serial). */
FTDISIM_API uint32_t FtdiSim_TakeWritten(const char* serial, void* buffer, uint32_t capacity);

FTDISIM_API int FtdiSim_SetEcho(const char* serial, int on);

/* The chip sends this many bytes (byte i is i % 251) as fast as the host
 * reads: the receive queue is refilled in 64 KiB steps whenever a read
 * empties it, and the event is signalled at each step. */
FTDISIM_API int FtdiSim_Stream(const char* serial, uint64_t bytes);

/* The next `times` calls of the named FT_ or FTID_ entry point (any chip)
 * return `status` without acting; -1 until cleared; 0 clears. Fails for an
 * unknown name. */
FTDISIM_API int FtdiSim_Fail(const char* entryPoint, uint32_t status, int times);

/* The calls made on handles of this chip since it was added or its log was
 * cleared, failed ones included, each line ending in a newline ("FT_Open", "FT_OpenEx",
 * "FT_Close", "FT_SetBaudRate 500000", "FT_SetBitMode 255 64",
 * "FT_SetUSBParameters 65536 65536", "FT_SetDataCharacteristics 8 0 0",
 * "FT_SetFlowControl 256 0 0", "FT_SetTimeouts 500 100",
 * "FT_SetLatencyTimer 2", "FT_Purge 3", "FT_SetEventNotification 1").
 * Reads, writes, status and EEPROM calls are not logged. Copies the text and
 * a NUL when it fits and returns the text length; otherwise copies nothing
 * and returns the length + 1 needed. Returns 0 for an unknown serial. */
FTDISIM_API size_t FtdiSim_CallLog(const char* serial, char* buffer, size_t capacity);

FTDISIM_API int FtdiSim_ClearCallLog(const char* serial);

/* Handles open now, all chips together. */
FTDISIM_API uint32_t FtdiSim_OpenHandles(void);

/* For the simulated chip-ID library (libftchipid.so) only: the chip id of an
 * open handle and the number of plugged chips, as FT_STATUS values, with the
 * failures set by FtdiSim_Fail for FTID_GetChipIDFromHandle and
 * FTID_GetNumDevices applied. */
FTDISIM_API uint32_t FtdiSim_ChipIdOfHandle(void* handle, uint32_t* chipId);
FTDISIM_API uint32_t FtdiSim_ChipCount(uint32_t* count);

#ifdef __cplusplus
}
#endif

#endif
