/** @file kmio.h
 * KalometIO: device input/output for positioning controllers and sensors.
 *
 * This header is the whole public interface of the library and its reference
 * manual. It is valid C99 and C++.
 *
 * Overview
 * --------
 * A device is opened by a text locator, for example
 *
 *     "usb:sn:KM123456"            USB device by the serial number of its chip
 *     "usb:id:305419896"           USB device by its decimal chip identifier
 *     "network:192.168.1.20:55550" TCP device at host and port
 *     "network:sn:KM000042"        network device found by discovery
 *     "serial:/dev/ttyUSB0"        serial port (a bare name such as
 *                                  "serial:ttyUSB0" is taken under /dev/)
 *
 * Locators are split at every ':'; empty fields are dropped, so a run of
 * separators counts as one. Because of this, serial port names that contain
 * ':' cannot be opened.
 *
 * Bytes are sent with KM_IO_Send. Received bytes and link failures arrive
 * through the two callbacks given to KM_IO_Open. Devices and interfaces can be
 * listed as property records (KM_IO_EnumerateDevices, KM_IO_EnumerateInterfaces),
 * and one process-wide event callback hears about network devices that appear
 * and vanish while background discovery runs (KM_IO_SetGlobalOptions,
 * KM_IO_SetEventCallback).
 *
 * Trust
 * -----
 * Discovery is unauthenticated. Any host on the local network can answer or
 * announce itself with any serial number, device type and port, and a
 * "network:sn:" locator connects to whichever device answered for that serial
 * number. Where that matters, open devices by address
 * ("network:192.168.1.20:55550", an address the application knows from its
 * own configuration) or check the device's identity over the connection
 * before trusting it; treat discovery events and listings as hints, and
 * restrict discovery to trusted interfaces ("iface", "discovery-iface").
 *
 * Result codes
 * ------------
 * Every function returns a uint32_t result code: KM_IO_OK (0) on success or one
 * of the KM_IO_ERR_* values below. No function allocates memory that the caller
 * must free.
 *
 * Option strings
 * --------------
 * Functions that take configuration take one option string: lines separated by
 * line feeds, each "key value" (the first blank separates key and value) or a bare
 * "key" (empty value; a bare boolean key means true). Blank lines and blanks,
 * tabs and carriage returns around a line are ignored. A null option string is
 * the same as "". Unknown keys are ignored unless the line "strict" is present,
 * in which case they give KM_IO_ERR_BAD_OPTIONS. Numbers are unsigned decimal;
 * booleans are "true", "on", "1", "false", "off", "0" or empty (true).
 *
 * Out-buffer convention
 * ---------------------
 * Functions that return text (KM_IO_GetProperty, KM_IO_GetErrorEventData,
 * KM_IO_GetDiscoveryEventData, KM_IO_EnumerateDevices,
 * KM_IO_EnumerateInterfaces) take a caller buffer and a size_t *ioSize. On
 * entry *ioSize holds the buffer's capacity in bytes. If the text and its
 * terminating NUL fit, the text and the NUL are copied, *ioSize becomes the
 * text length (without the NUL) and the result is KM_IO_OK. Otherwise nothing
 * is copied, *ioSize becomes the size needed (length + 1) and the result is
 * KM_IO_ERR_BUFFER_TOO_SMALL; call again with a buffer of that size. (The one
 * exception is the serial link's KM_IO_GetProperty, described there.)
 *
 * Record text
 * -----------
 * Enumeration returns one line per device or interface, lines separated by
 * line feeds with none after the last. A line is "key=value" items joined by '|'.
 * In values, the percent sign is written "%25", line feed "%0A", '|' "%7C" and '=' "%3D".
 * Which keys appear is chosen with "include-KEY" options ("include-all" for
 * every key); with "only-locator" the lines are the bare, unescaped locators.
 *
 * Serial ports (Linux)
 * --------------------
 * A port is named by its device path ("serial:/dev/ttyUSB0"); enumeration
 * lists the ttys of /sys/class/tty that belong to hardware, in natural name
 * order (ttyS2 before ttyS10), without phantom 8250 ports (ports whose sysfs
 * "type" reads 0; USB serial adapters and CDC ACM devices, which have no such
 * attribute, are always listed). With the enumeration option
 * "serial-usb-info" (KM_IO_IFACE_ALL), the record of a port that sits on a
 * USB device also carries, after "locator", what the kernel knows of that
 * device in the keys of the USB record: "usb-vid" and "usb-pid" (decimal),
 * "usb-desc" (product text) and "device-sn" (serial number text, empty when
 * the device has none); and "find-usb-vid", "find-usb-pid",
 * "find-usb-product-name" and "find-device-sn" then keep only the ports whose
 * USB device matches (a port on no USB device matches no such filter). Without
 * the option serial records hold "iface-type" and "locator" only, whatever the
 * other options say. "include-usb-vid", "include-usb-pid" and
 * "include-device-sn" select those keys; "usb-desc" shows with "include-all".
 * Serial port identities are read on Linux only. An open port is
 * held exclusively (flock plus TIOCEXCL; the lock is also how enumeration
 * tells that a port is in use): opening a port that another program holds
 * gives KM_IO_ERR_OPEN_FAILED. The line is raw 8N1 with modem-status lines
 * ignored (CLOCAL), DTR and RTS asserted; "baudrate" takes any rate, rates
 * without a Bnnn constant through termios2, and a rate the driver refuses or
 * cannot come within 2.5 % of gives KM_IO_ERR_OPEN_FAILED. "xonxoff" turns on
 * IXON and IXOFF. Received bytes arrive in blocks of at most 1024 bytes. A
 * hang-up or read failure is reported once as KM_IO_ERR_LINK_FAILED; after it
 * nothing more is received, and the handle stays open until closed.
 * KM_IO_Send has no time limit (a peer that holds XOFF blocks it); closing
 * the handle makes a blocked send return KM_IO_ERR_SEND_FAILED.
 *
 * USB (Linux)
 * -----------
 * USB devices carry an FTDI chip and are reached through FTDI's D2XX driver,
 * "libftd2xx.so", which the library loads with dlopen the first time a USB
 * function needs it (never when the library itself loads), by that name and
 * so through the loader's search path (LD_LIBRARY_PATH, the ld.so cache,
 * the default folders). FTDI's chip-ID library "libftchipid.so" is used when
 * it loads too; without it (there is none for 64-bit Linux) a chip's id is
 * derived from its EEPROM words 0x43 and 0x44, which only FT232R and FT245R
 * chips carry (an erased pair reads as "no id"). If the driver cannot be
 * loaded, or lacks one of its 22 functions, that verdict holds for the life
 * of the process, even if the driver is installed meanwhile: then every
 * "usb:" open and KM_IO_EnumerateDevices(KM_IO_IFACE_USB) give
 * KM_IO_ERR_DRIVER_UNAVAILABLE, while KM_IO_IFACE_ALL lists no USB devices
 * and does not fail, so a machine without the driver still lists its network
 * and serial devices.
 *
 * On Windows the driver is "ftd2xx.dll" and the chip-ID library
 * "FTChipID.dll", both loaded with LoadLibraryA under the thread error mode
 * that suppresses the system's error dialog; there both are required, and a
 * missing FTChipID.dll makes the driver unavailable for the life of the
 * process, as a missing driver does.
 *
 * Locators: "usb:sn:SERIAL"; "usb:id:CHIPID" (decimal; resolved through the
 * KM_IO_IFACE_USB list, so "product-name" options narrow it: an id of 0 or
 * one no listed device has gives KM_IO_ERR_NOT_FOUND, a device listed with
 * that id but no serial number KM_IO_ERR_ENUMERATION_FAILED); "usb:N", the
 * N-th (from 0) device not open by any program whose description matches
 * the "product-name" options. Any other shape gives KM_IO_ERR_BAD_LOCATOR. A
 * device open in another program is not found (KM_IO_ERR_NOT_FOUND). A
 * high-speed dual-channel chip (FT2232H) is one device, known by channel A:
 * it is listed once, its description without the " A" and its serial number
 * without the channel letter; "usb:sn:" accepts that serial number as well
 * as the channel's own.
 *
 * Opening reads the device's link profile from its EEPROM user area (a
 * record tagged "KMIO": 500000 baud; 12000000 baud with RTS/CTS; synchronous
 * FIFO; 3000000 baud) or, untagged, from its description; a device whose
 * profile is unknown gives KM_IO_ERR_BAD_OPTIONS. Synchronous FIFO (also
 * chosen for a high-speed FT2232H without a tagged profile) sets RTS/CTS
 * flow control, the handshake the chip's FIFO mode runs on, unless
 * "ftdi-flow-control" says otherwise. "baudrate" and
 * "ftdi-flow-control" ("none", "rtscts", "dtrdsr"; anything else:
 * KM_IO_ERR_BAD_OPTIONS) override the profile. A rate the driver rejects, and
 * an "ftdi-latency" above 255, give KM_IO_ERR_BAD_OPTIONS; any other driver
 * call that fails while opening gives KM_IO_ERR_OPEN_FAILED, and the chip is
 * closed again.
 *
 * Received bytes arrive in blocks of at most 1024 bytes. The receiving
 * thread waits for the driver's receive event, at most "health-check" ms at
 * a time (default 250), and then looks at the chip: an unplugged chip is
 * reported as KM_IO_ERR_LINK_LOST within one period; with "health-check 0"
 * there is no time limit and an unplug is noticed only when the driver
 * signals the event. Any other driver failure is KM_IO_ERR_LINK_FAILED. A
 * link error is reported once; nothing is received after it, and the handle
 * stays open until closed. The driver's event does not say what happened,
 * so bytes that arrive in the very instant the thread starts waiting are
 * picked up at the next event or health check. KM_IO_Close returns within
 * milliseconds whatever "health-check" is.
 *
 * KM_IO_Send gives up after "tx-timeout" ms (default 1000) with
 * KM_IO_ERR_SEND_FAILED, part of the data possibly sent; a driver I/O error
 * (an unplugged chip) gives KM_IO_ERR_LINK_LOST, any other driver failure
 * KM_IO_ERR_SEND_FAILED. The one property is "ftdi-id", the chip id in
 * decimal (KM_IO_ERR_NOT_SUPPORTED when it cannot be read).
 *
 * Listing (KM_IO_IFACE_ALL): the driver's device list is cached for 1500 ms
 * ("force-rescan" reads it anew). Devices of the driver's unknown type are
 * never listed. Each listed device is asked which protocols it speaks:
 * devices described as "Kalomet DRV-I" and "Kalomet HUB-3X" speak 146 and
 * 147 and are not asked; others are opened, configured as their profile
 * says and sent a query frame, and must answer within 250 ms in all (a
 * device that does not costs that long). A device that cannot be asked, or
 * gives no valid answer, is listed without "protocol-id". Frames whose start
 * byte, length or CRC-32 is wrong are discarded. The answer is read up to
 * its protocol-id frame (a 16-bit count, then that many 16-bit ids, little
 * endian) or up to the time limit; a status frame (type 240) carries its
 * value in its first 16 bits. A device yields one record per protocol id,
 * keys in this order: iface-type, usb-vid, usb-pid, usb-desc, device-sn,
 * locator, available, usb-id (when the chip id is known and not 0),
 * protocol-id. "locator-format-usb sn" (the default) writes "usb:sn:"
 * locators, "id" writes "usb:id:" ones ("usb:id:0" for a chip without id);
 * any other value gives KM_IO_ERR_BAD_OPTIONS before anything is scanned.
 * "usb-desc" and "protocol-id" are shown only with "include-all". A driver
 * list that cannot be read gives KM_IO_ERR_ENUMERATION_FAILED.
 *
 * KM_IO_EnumerateDevices(KM_IO_IFACE_USB) writes the older list: option lines
 * "product-name NAME" (repeatable), "usb-vid N" and "usb-pid N" (repeatable,
 * decimal), and the flags "include-id", "include-usb-vid", "include-usb-pid",
 * "include-ds", "include-sn" and "force-rescan", each set by its name
 * standing anywhere in the text. One line per device not open by any
 * program: "usb", then ":id:" CHIPID, ":usb-vid:" VID, ":usb-pid:" PID, ":ds:"
 * DESCRIPTION and ":sn:" SERIAL for the flags set, in this order, numbers
 * decimal; lines joined by '\n'.
 *
 * Threads
 * -------
 * Every function may be called from any thread. The receive and link-error
 * callbacks of a device run on that device's own receiving thread, one call at
 * a time, with no library lock held. The event callback runs on a discovery
 * thread with the library's table lock held; see KM_IO_SetEventCallback for
 * what it must not call.
 *
 * Null pointers
 * -------------
 * Each function says, for every pointer it takes, whether null is allowed and
 * what it gives. Where it says "must not be null", the library does not check:
 * a null pointer there is undefined behaviour.
 *
 * Lifecycle
 * ---------
 * There is no initialisation call and no close-all. The handle table and the
 * discovery cache are made on first use and are never destroyed: a program
 * may end with devices open and data arriving, and nothing in the library
 * runs down at exit under threads that are still using it.
 *  - Open devices are not closed for you. Their receiving threads keep the
 *    devices alive and run until the process ends, and may call onReceive and
 *    onError while the process shuts down. Close every device, with wait
 *    non-zero, before unloading the library: unloading (dlclose,
 *    FreeLibrary) with a device open leaves its thread running code that is
 *    gone.
 *  - Discovery threads (one per interface that background discovery or an
 *    enumeration has used) run until the process ends and may call the event
 *    callback until then. KM_IO_SetGlobalOptions("discovery-iface
 *    network:none") ends them earlier, and KM_IO_SetEventCallback(NULL, NULL)
 *    stops the events.
 */
#ifndef KMIO_KMIO_H
#define KMIO_KMIO_H

#include <stddef.h>
#include <stdint.h>

/** Marks the exported functions: DLL export or import on Windows, default visibility elsewhere. */
#if defined(_WIN32)
#if defined(KMIO_BUILDING_LIBRARY)
#define KM_IO_API __declspec(dllexport)
#else
#define KM_IO_API __declspec(dllimport)
#endif
#else
#define KM_IO_API __attribute__((visibility("default")))
#endif

/**
 * Calling convention of the exported functions and of the three callbacks.
 * On 32-bit Windows it is __cdecl, the C compilers' default: the export table
 * then carries the plain names (KM_IO_Open, not _KM_IO_Open@28), and callers
 * built with another default (/Gz, /Gr) still call the functions correctly
 * and pass callbacks of the right kind, since the header says it outright.
 * 64-bit Windows and other systems have one convention, so it is empty there.
 */
#if defined(_WIN32) && !defined(_WIN64)
#define KM_IO_CALL __cdecl
#else
#define KM_IO_CALL /**< empty: the platform has one calling convention */
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Library version reported by KM_IO_GetVersion. */
#define KM_IO_VERSION_MAJOR 2  /**< major version, reported by KM_IO_GetVersion */
#define KM_IO_VERSION_MINOR 2  /**< minor version, reported by KM_IO_GetVersion */
#define KM_IO_VERSION_UPDATE 0 /**< update number, reported by KM_IO_GetVersion */

/* Result codes. */
#define KM_IO_OK 0u                     /**< success */
#define KM_IO_ERR_NO_FREE_HANDLE 1u     /**< all 64 handles are in use */
#define KM_IO_ERR_BAD_LOCATOR 2u        /**< locator has no ':' or an unknown prefix, or the link cannot use its fields */
#define KM_IO_ERR_NOT_FOUND 3u          /**< the device named by the locator could not be found */
#define KM_IO_ERR_BAD_OPTIONS 4u        /**< bad option string (conversion failed, unknown key under "strict", bad port or interface list) */
#define KM_IO_ERR_OPEN_FAILED 5u        /**< the link could not be opened or configured */
#define KM_IO_ERR_INVALID_HANDLE 6u     /**< handle is 64 or more, or not open */
#define KM_IO_ERR_LINK_LOST 7u          /**< the connection or device went away (link-error callback; network and USB send) */
#define KM_IO_ERR_LINK_FAILED 8u        /**< any other failure while receiving (link-error callback only) */
#define KM_IO_ERR_SEND_FAILED 9u        /**< sending failed */
#define KM_IO_ERR_NOT_SUPPORTED 10u     /**< interface type cannot be enumerated; property could not be read */
#define KM_IO_ERR_UNKNOWN_PROPERTY 11u  /**< unknown property key */
#define KM_IO_ERR_BUFFER_TOO_SMALL 12u  /**< buffer too small; *ioSize holds the size needed */
#define KM_IO_ERR_ENUMERATION_FAILED 13u /**< enumeration failed (USB driver call, network interface list) */
#define KM_IO_ERR_DRIVER_UNAVAILABLE 14u /**< the USB driver library or its functions are not available */
#define KM_IO_ERR_WRONG_EVENT_TYPE 15u  /**< event record of the wrong type for the accessor */

/* Interface types. */
#define KM_IO_IFACE_NONE 0u    /**< no interface: a locator that could not be classified */
#define KM_IO_IFACE_USB 1u     /**< USB devices through the FTDI D2XX driver ("usb:" locators) */
#define KM_IO_IFACE_NETWORK 2u /**< network devices over TCP, found by discovery ("network:" locators) */
#define KM_IO_IFACE_SERIAL 3u  /**< serial ports ("serial:" locators) */
#define KM_IO_IFACE_ALL 9999u /**< combined enumeration over all links */

/* Event types. */
#define KM_IO_EVENT_ERROR 0u              /**< error event (never raised by this version) */
#define KM_IO_EVENT_DEVICE_AVAILABLE 1u   /**< a network device was found, or changed and is present */
#define KM_IO_EVENT_DEVICE_UNAVAILABLE 2u /**< a network device was lost or is no longer available */

/** Opaque event record, valid only during the event callback. */
typedef struct KM_IO_Event KM_IO_Event;

/**
 * Receives a block of bytes from a device. Runs on the device's receiving
 * thread. `data` is valid only during the call. KM_IO_Close(handle, 1) on its
 * own device cannot wait for the thread it runs on: it returns at once, as
 * KM_IO_Close(handle, 0) does.
 */
typedef void (KM_IO_CALL *KM_IO_ReceiveCallback)(void *userContext, const uint8_t *data, size_t length);

/**
 * Reports a link failure: KM_IO_ERR_LINK_LOST (7) or KM_IO_ERR_LINK_FAILED (8).
 * Runs on the device's receiving thread, under the same rules as the receive
 * callback. The device stays open until the application closes it.
 */
typedef void (KM_IO_CALL *KM_IO_LinkErrorCallback)(void *userContext, uint32_t code);

/**
 * Receives a process-wide event. `eventType` is one of KM_IO_EVENT_*; read the
 * record with KM_IO_GetErrorEventData or KM_IO_GetDiscoveryEventData before
 * returning, since it is destroyed afterwards.
 */
typedef void (KM_IO_CALL *KM_IO_EventCallback)(void *userData, uint32_t eventType, const KM_IO_Event *event);

/**
 * Reports the library version (2.2.0).
 *
 * @param major  out: 2; must not be null.
 * @param minor  out: 2; must not be null.
 * @param update out: 0; must not be null.
 * @return KM_IO_OK.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_GetVersion(uint32_t *major, uint32_t *minor, uint32_t *update);

/**
 * Classifies a locator by the text before its first ':' ("usb" gives
 * KM_IO_IFACE_USB, "network" KM_IO_IFACE_NETWORK, "serial" KM_IO_IFACE_SERIAL;
 * the comparison is case-sensitive). Only the prefix is examined.
 *
 * @param type    out: the interface type; KM_IO_IFACE_NONE on failure; must
 *                not be null.
 * @param locator NUL-terminated locator; null gives KM_IO_ERR_BAD_LOCATOR.
 * @return KM_IO_OK, or KM_IO_ERR_BAD_LOCATOR when there is no ':' or the prefix
 *         is unknown.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_GetLocatorInterfaceType(uint32_t *type, const char *locator);

/**
 * Opens a device and stores it in the handle table.
 *
 * Options per link:
 *  - serial:  "baudrate N" (required, not 0), "xonxoff" (software flow control).
 *  - network: "port N" (when the locator has no port; there is no default
 *             port, so a locator without one and no "port" option gives
 *             KM_IO_ERR_BAD_OPTIONS), "connect-timeout MS"
 *             (default 5000), "iface network:A.B.C.D" or "iface network:all"
 *             (interfaces on which a "network:sn:" locator is searched),
 *             "discovery-timeout MS" (default 100).
 *  - usb:     "baudrate" (default: the device's link profile),
 *             "ftdi-flow-control none|rtscts|dtrdsr", "rx-timeout MS" and
 *             "tx-timeout MS" (driver time-outs, default 1000; tx-timeout
 *             also limits one KM_IO_Send), "ftdi-latency MS" (default 2),
 *             "health-check MS" (default 250, 0 = none), "product-name"
 *             (repeatable). See "USB (Linux)" above.
 *  - all:     "strict" rejects unknown keys.
 *
 * @param handle      out: the handle, 0 to 63; written 0 on failure; must not
 *                    be null.
 * @param locator     NUL-terminated locator; null gives KM_IO_ERR_BAD_LOCATOR.
 * @param options     option string; null is the same as "".
 * @param userContext passed back unchanged as the first argument of both
 *                    callbacks and never read by the library; may be null.
 * @param onReceive   called with every block of received bytes; must not be
 *                    null (the open succeeds, and the first block received
 *                    calls through it).
 * @param onError     called with KM_IO_ERR_LINK_LOST or KM_IO_ERR_LINK_FAILED
 *                    when the link fails; null means link failures are not
 *                    reported (but see network devices below).
 * @return KM_IO_OK; KM_IO_ERR_BAD_LOCATOR, KM_IO_ERR_NOT_FOUND,
 *         KM_IO_ERR_BAD_OPTIONS, KM_IO_ERR_OPEN_FAILED,
 *         KM_IO_ERR_DRIVER_UNAVAILABLE from the link; KM_IO_ERR_NO_FREE_HANDLE
 *         when 64 devices are already open (the new device is closed again).
 *
 * Both callbacks run on the device's receiving thread, never under a library
 * lock. KM_IO_Close(handle, 1) for their own handle does not wait (see
 * KM_IO_ReceiveCallback).
 *
 * Network devices: once the peer has closed the connection, onError receives
 * KM_IO_ERR_LINK_LOST again on every pass of the receiving thread, without
 * delay, until the application closes the device; deciding when to give up is
 * the application's. Without onError, a failed receive is handed to onReceive
 * with the receive call's -1 as its length, which arrives as SIZE_MAX: such a
 * call carries no data, so register onError or check for that length.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_Open(uint32_t *handle, const char *locator, const char *options, void *userContext,
                              KM_IO_ReceiveCallback onReceive, KM_IO_LinkErrorCallback onError);

/**
 * Closes a device. The handle is free for reuse as soon as the call begins.
 *
 * @param handle handle from KM_IO_Open.
 * @param wait   non-zero: return only after the device's receiving thread has
 *               ended, so no callback for it runs afterwards. Zero: return at
 *               once; callbacks may still run briefly while the thread ends.
 * @return KM_IO_OK, or KM_IO_ERR_INVALID_HANDLE.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_Close(uint32_t handle, int32_t wait);

/**
 * Sends bytes to a device and returns when the link has accepted all of them.
 * Sends to one device are serialised; a concurrent KM_IO_Close is safe.
 *
 * @param handle handle from KM_IO_Open.
 * @param data   the bytes; may be null only when length is 0.
 * @param length number of bytes; 0 succeeds without touching the link.
 * @return KM_IO_OK; KM_IO_ERR_INVALID_HANDLE; KM_IO_ERR_SEND_FAILED;
 *         KM_IO_ERR_LINK_LOST (network: send timed out; USB: driver I/O error).
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_Send(uint32_t handle, const void *data, size_t length);

/**
 * Reads a property of an open device into a caller buffer (out-buffer
 * convention above).
 *
 * Serial devices have no properties: every key reads as the empty text, with
 * *ioSize set to 0; when the capacity is 0 the result is
 * KM_IO_ERR_BUFFER_TOO_SMALL and *ioSize stays 0. Network devices answer
 * KM_IO_ERR_UNKNOWN_PROPERTY for every key, with an empty output.
 *
 * @param handle handle from KM_IO_Open.
 * @param key    NUL-terminated property key; null is the same as "".
 * @param value  caller buffer; may be null only when *ioSize is 0.
 * @param ioSize in: capacity of value; out: length written or size needed;
 *               must not be null.
 * @return KM_IO_OK; KM_IO_ERR_INVALID_HANDLE; KM_IO_ERR_UNKNOWN_PROPERTY;
 *         KM_IO_ERR_BUFFER_TOO_SMALL; KM_IO_ERR_NOT_SUPPORTED (USB: the driver
 *         failed to read the property). USB devices know "ftdi-id"; a null
 *         key is an unknown key, a null value counts as a buffer of
 *         capacity 0, and a null ioSize gives KM_IO_ERR_BUFFER_TOO_SMALL.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_GetProperty(uint32_t handle, const char *key, char *value, size_t *ioSize);

/**
 * Registers the process-wide event callback, or switches events off with a
 * null callback. Events raised while none is registered are lost. After this
 * function returns, the previous callback is never called again.
 *
 * Devices announce themselves over two routes (broadcast and multicast) whose
 * datagrams may arrive in either order, so a device that changes state
 * quickly can be reported more than once; its latest event tells its state.
 * A device that goes away silently is reported unavailable by the next
 * discovery pass it does not answer (a KM_IO_EnumerateDevices call with
 * "force-rescan" on its interface runs one).
 *
 * The callback runs on a discovery thread, one call at a time, while the
 * library's table lock is held. It must copy what it needs from the record
 * and must not call KM_IO_Open, KM_IO_Close, KM_IO_Send, KM_IO_GetProperty,
 * KM_IO_SetEventCallback or KM_IO_SetGlobalOptions: such a call fails with a
 * C++ std::system_error (resource deadlock would occur) thrown through the
 * caller. kmio.dll carries its own C++ runtime, so a C++ caller on Windows
 * that catches it must compare code().value() with
 * (int)std::errc::resource_deadlock_would_occur: comparing the code with the
 * errc itself is false there, the two runtimes' categories being different
 * objects. KM_IO_GetErrorEventData and KM_IO_GetDiscoveryEventData may be
 * called. KM_IO_EnumerateDevices may be called, but a listing that includes
 * the network link returns KM_IO_ERR_ENUMERATION_FAILED at once: a discovery
 * pass ends by raising events, which would wait for the callback to return.
 *
 * @param callback the event function; null switches events off.
 * @param userData passed back unchanged as the callback's first argument and
 *                 never read by the library; may be null.
 * @return KM_IO_OK.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_SetEventCallback(KM_IO_EventCallback callback, void *userData);

/**
 * Reads an error event (type KM_IO_EVENT_ERROR): its code and message text.
 *
 * @param event  the record handed to the event callback; null gives
 *               KM_IO_ERR_WRONG_EVENT_TYPE.
 * @param code   out: the error code, written only with KM_IO_OK; must not be
 *               null.
 * @param buffer caller buffer for the message; may be null only when *ioSize
 *               is 0 (the call then reports the size needed).
 * @param ioSize in: capacity of buffer; out: length written or size needed;
 *               must not be null.
 * @return KM_IO_OK; KM_IO_ERR_WRONG_EVENT_TYPE for other events and for a null
 *         event (nothing written); KM_IO_ERR_BUFFER_TOO_SMALL (*ioSize =
 *         length + 1; buffer and *code untouched).
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_GetErrorEventData(const KM_IO_Event *event, uint32_t *code, char *buffer, size_t *ioSize);

/**
 * Reads the device record of a discovery event (types
 * KM_IO_EVENT_DEVICE_AVAILABLE and KM_IO_EVENT_DEVICE_UNAVAILABLE) as record
 * text. Options: "only-locator" gives the bare locator; "include-KEY" selects
 * keys (available, device-info, device-sn, device-type, iface, iface-type,
 * locator, network-host, network-port, protocol-id, or all). Unknown keys are
 * ignored. An "only-locator" value that is not a boolean throws
 * std::invalid_argument through the caller (C++ callers only).
 *
 * @param event   the record handed to the event callback; null gives
 *                KM_IO_ERR_WRONG_EVENT_TYPE.
 * @param options option string; null is the same as "" (every key).
 * @param buffer  caller buffer; may be null only when *ioSize is 0.
 * @param ioSize  in: capacity of buffer; out: length written or size needed;
 *                must not be null.
 * @return KM_IO_OK; KM_IO_ERR_WRONG_EVENT_TYPE for other events and for a null
 *         event (nothing written); KM_IO_ERR_BUFFER_TOO_SMALL.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_GetDiscoveryEventData(const KM_IO_Event *event, const char *options, char *buffer,
                                               size_t *ioSize);

/**
 * Tells whether KM_IO_EnumerateDevices can list an interface type on its own:
 * writes 1 for KM_IO_IFACE_USB and KM_IO_IFACE_SERIAL, 0 for anything else
 * (network devices are listed through KM_IO_IFACE_ALL).
 *
 * @param interfaceType one of KM_IO_IFACE_*.
 * @param can out: 1 or 0; must not be null.
 * @return KM_IO_OK.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_CanEnumerateDevices(uint32_t interfaceType, uint32_t *can);

/**
 * Lists devices as record text (out-buffer convention above).
 *
 * KM_IO_IFACE_SERIAL lists the serial locators, one per line (the option text
 * is only searched for "force-rescan"). KM_IO_IFACE_USB writes the older USB
 * list (see "USB (Linux)" above).
 * KM_IO_IFACE_ALL lists devices of the links named by "iface-type" lines
 * ("usb", "network", "serial" or "all"; none given means all), USB first, then
 * network, then serial. Network devices are found only on the interfaces named
 * by "iface network:A.B.C.D" or "iface network:all" lines. Further options:
 * "find-only-available" (default true), "find-protocol-id", "find-device-sn",
 * "find-device-type", "find-usb-vid", "find-usb-pid", "find-usb-product-name",
 * "discovery-timeout MS" (default 100), "force-rescan" (ignore the caches:
 * 3 s for network, 1.5 s for USB), "locator-format-network sn|host",
 * "locator-format-usb sn|id",
 * "only-locator", "include-KEY", "serial-usb-info" (serial records with the
 * identity of their USB device; see "Serial ports (Linux)").
 *
 * @param interfaceType KM_IO_IFACE_USB, KM_IO_IFACE_SERIAL or KM_IO_IFACE_ALL.
 * @param options option string; null is the same as "".
 * @param buffer  caller buffer; may be null only when *ioSize is 0.
 * @param ioSize  in: capacity of buffer; out: length written or size needed;
 *                must not be null.
 * @return KM_IO_OK; KM_IO_ERR_NOT_SUPPORTED for other interface types;
 *         KM_IO_ERR_BAD_OPTIONS; KM_IO_ERR_BUFFER_TOO_SMALL;
 *         KM_IO_ERR_ENUMERATION_FAILED (also at once when called from the
 *         event callback with the network link selected);
 *         KM_IO_ERR_DRIVER_UNAVAILABLE (USB only).
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_EnumerateDevices(uint32_t interfaceType, const char *options, char *buffer,
                                          size_t *ioSize);

/**
 * Lists the host's network interfaces and serial ports as record text
 * (out-buffer convention above). "iface-type network", "iface-type serial" or
 * "iface-type all" choose what is listed (network interfaces first; none
 * given lists both). Record
 * keys: iface-type, network-host, network-subnet-mask, name (network) and
 * iface-type, name, serial-port (serial). "include-KEY" selects keys;
 * "only-KEY" prints only that key's value (at most one "only-" option).
 *
 * @param options option string; null is the same as "" (both kinds).
 * @param buffer  caller buffer; may be null only when *ioSize is 0.
 * @param ioSize  in: capacity of buffer; out: length written or size needed;
 *                must not be null.
 * @return KM_IO_OK; KM_IO_ERR_BAD_OPTIONS; KM_IO_ERR_BUFFER_TOO_SMALL;
 *         KM_IO_ERR_ENUMERATION_FAILED when the network interface list cannot
 *         be read.
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_EnumerateInterfaces(const char *options, char *buffer, size_t *ioSize);

/**
 * Sets process-wide discovery options:
 *  - "locator-format-network sn|host": the locator form in discovery events.
 *  - "discovery-iface network:A.B.C.D" (repeatable), "discovery-iface
 *    network:all", or "discovery-iface network:none": the interfaces on which
 *    background discovery runs and raises events; "none" ends all of it.
 *
 * Must not be called from the event callback.
 *
 * @param options option string; null is the same as "" (nothing changes).
 * @return KM_IO_OK; KM_IO_ERR_BAD_OPTIONS for a bad string or an interface on
 *         which discovery cannot be set up (the earlier settings stay in force).
 */
KM_IO_API uint32_t KM_IO_CALL KM_IO_SetGlobalOptions(const char *options);

#ifdef __cplusplus
}
#endif

#endif /* KMIO_KMIO_H */
