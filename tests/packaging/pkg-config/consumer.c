/* Checks that the installed header and library work from C99 with flags from
 * pkg-config: the version, locator classification and the result of a send
 * to a handle that is not open. Exits non-zero with a message on the first
 * mismatch. */
#include <kmio/kmio.h>
#include <stdio.h>

int main(void) {
    uint32_t major = 0, minor = 0, update = 0;
    uint32_t type = KM_IO_IFACE_NONE;
    if (KM_IO_GetVersion(&major, &minor, &update) != KM_IO_OK || major != KM_IO_VERSION_MAJOR ||
        minor != KM_IO_VERSION_MINOR || update != KM_IO_VERSION_UPDATE) {
        fprintf(stderr, "consumer: library %u.%u.%u does not match its header\n", major, minor, update);
        return 1;
    }
    if (KM_IO_GetLocatorInterfaceType(&type, "serial:/dev/ttyUSB0") != KM_IO_OK ||
        type != KM_IO_IFACE_SERIAL) {
        fprintf(stderr, "consumer: serial locator not classified as serial\n");
        return 1;
    }
    if (KM_IO_Send(63, "x", 1) != KM_IO_ERR_INVALID_HANDLE) {
        fprintf(stderr, "consumer: a send to a closed handle did not give KM_IO_ERR_INVALID_HANDLE\n");
        return 1;
    }
    printf("pkg-config consumer: KalometIO %u.%u.%u\n", major, minor, update);
    return 0;
}
