/*
 * Prints the library version and the interface type of a few locators, using
 * only the public C header. Exits non-zero if a call does not answer as the
 * header documents, so the build can run it as a test.
 */
#include <kmio/kmio.h>
#include <stdio.h>

struct Sample {
    const char* locator;
    uint32_t expectedResult;
    uint32_t expectedType;
};

static const char* typeName(uint32_t type) {
    switch (type) {
        case KM_IO_IFACE_USB:
            return "usb";
        case KM_IO_IFACE_NETWORK:
            return "network";
        case KM_IO_IFACE_SERIAL:
            return "serial";
        default:
            return "none";
    }
}

int main(void) {
    static const struct Sample samples[] = {
        {"usb:sn:KM123456", KM_IO_OK, KM_IO_IFACE_USB},
        {"network:192.168.1.20:55550", KM_IO_OK, KM_IO_IFACE_NETWORK},
        {"network:sn:KM000042", KM_IO_OK, KM_IO_IFACE_NETWORK},
        {"serial:/dev/ttyUSB0", KM_IO_OK, KM_IO_IFACE_SERIAL},
        {"USB:sn:KM123456", KM_IO_ERR_BAD_LOCATOR, KM_IO_IFACE_NONE},
        {"usb", KM_IO_ERR_BAD_LOCATOR, KM_IO_IFACE_NONE},
    };
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t update = 0;
    size_t i;
    int failures = 0;

    KM_IO_GetVersion(&major, &minor, &update);
    printf("KalometIO %u.%u.%u\n", (unsigned)major, (unsigned)minor, (unsigned)update);
    if (major != KM_IO_VERSION_MAJOR || minor != KM_IO_VERSION_MINOR || update != KM_IO_VERSION_UPDATE) {
        printf("  version differs from the header's %u.%u.%u\n", (unsigned)KM_IO_VERSION_MAJOR,
               (unsigned)KM_IO_VERSION_MINOR, (unsigned)KM_IO_VERSION_UPDATE);
        ++failures;
    }

    for (i = 0; i < sizeof samples / sizeof samples[0]; ++i) {
        uint32_t type = 99;
        uint32_t result = KM_IO_GetLocatorInterfaceType(&type, samples[i].locator);
        printf("%-28s -> result %u, type %u (%s)\n", samples[i].locator, (unsigned)result, (unsigned)type,
               typeName(type));
        if (result != samples[i].expectedResult || type != samples[i].expectedType) {
            printf("  expected result %u, type %u\n", (unsigned)samples[i].expectedResult,
                   (unsigned)samples[i].expectedType);
            ++failures;
        }
    }
    return failures == 0 ? 0 : 1;
}
