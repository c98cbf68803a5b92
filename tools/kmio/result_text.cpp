#include "result_text.h"

#include <kmio/kmio.h>

#include <array>
#include <cstdio>

namespace kmiotool {

namespace {

constexpr std::array<const char*, 16> kTexts = {
    "success",
    "no free handle: all 64 handles are in use",
    "the locator is not usable",
    "the device could not be found",
    "bad option string",
    "the link could not be opened",
    "invalid handle",
    "the link was lost",
    "the link failed while receiving",
    "sending failed",
    "not supported",
    "unknown property",
    "buffer too small",
    "enumeration failed",
    "the USB driver is not available",
    "wrong event type",
};
static_assert(kTexts.size() == KM_IO_ERR_WRONG_EVENT_TYPE + 1, "one text per result code");

}  // namespace

const char* resultText(std::uint32_t code) {
    if (code < kTexts.size()) {
        return kTexts[code];
    }
    return "unknown result code";
}

std::string describeResult(std::uint32_t code) {
    return std::string(resultText(code)) + " (" + std::to_string(code) + ")";
}

void reportFailure(const std::string& what, std::uint32_t code) {
    std::fprintf(stderr, "kmio: %s: %s\n", what.c_str(), describeResult(code).c_str());
}

}  // namespace kmiotool
