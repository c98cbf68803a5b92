#include "options/option_list.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace kmio;

TEST(SplitOptions, CutsLinesIntoKeyAndUntrimmedValue) {
    const struct {
        const char* text;
        OptionList expected;
    } cases[] = {
        {" \n\t\r\n  \n", {}},
        {"\n\n  baudrate 9600\r\n", {{"baudrate", "9600"}}},
        {"baudrate  9600", {{"baudrate", " 9600"}}},
        {"key=value", {{"key=value", ""}}},
        {"a 1\nb\t2\na 3", {{"a", "1"}, {"b\t2", ""}, {"a", "3"}}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(splitOptions(c.text), c.expected) << c.text;
}

TEST(ToUnsigned, FollowsThirtyTwoBitStoul) {
    const struct {
        const char* text;
        std::uint32_t value;
    } ok[] = {
        {" \t 9600", 9600}, {"9600abc", 9600}, {"+7", 7}, {"-1", 4294967295u}, {"4294967295", 4294967295u}};
    for (const auto& c : ok)
        EXPECT_EQ(toUnsigned(c.text), c.value) << c.text;
    for (const char* bad : {"", " ", "fast", "-", "+x"})
        EXPECT_THROW(toUnsigned(bad), std::invalid_argument) << bad;
    for (const char* big : {"4294967296", "-4294967296", "123456789012345678901234567890"})
        EXPECT_THROW(toUnsigned(big), std::out_of_range) << big;
}

TEST(RawOptionValue, TakesValueStraightFromText) {
    EXPECT_EQ(rawOptionValue("x 1\nproduct-name   Kalomet DRV2\r\nother 1", "product-name"), "Kalomet DRV2");
    // Substring search: the key is found inside a longer key.
    EXPECT_EQ(rawOptionValue("find-usb-product-name A\n", "product-name"), "A");
    EXPECT_EQ(rawOptionValue("connect-timeout   ", "connect-timeout"), "");
    EXPECT_EQ(rawOptionValue("port 1", "connect-timeout"), "");
}

TEST(RawOptionValue, ReadsAsANumberWithoutEverFailing) {
    const struct {
        const char* text;
        std::uint32_t value;
    } cases[] = {
        {"", 5000},                                     // absent: the fallback
        {"connect-timeout   ", 5000},                   // no value is absence too
        {"connect-timeout 250", 250},                   //
        {"x-connect-timeout 7\nconnect-timeout 9", 7},  // first occurrence, inside a longer key
        {"connect-timeout 12ms", 12},                   // leading digits count
        {"connect-timeout soon", 0},                    // no digits: 0, not a failure
        {"connect-timeout 99999999999", 4294967295u},   // too large: the largest
    };
    for (const auto& c : cases)
        EXPECT_EQ(rawUnsignedOption(c.text, "connect-timeout", 5000), c.value) << c.text;
}
