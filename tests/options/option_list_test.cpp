#include "options/option_list.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "options/options_error.h"

using namespace kmio;

namespace {

std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const OptionsError& e) {
        return e.what();
    }
    return "no error";
}

}  // namespace

TEST(SplitOptions, CutsLinesIntoKeyAndUntrimmedValue) {
    const struct {
        const char* text;
        OptionList expected;
    } cases[] = {
        {"", {}},
        {" \n\t\r\n  \n", {}},
        {"baudrate 9600", {{"baudrate", "9600"}}},
        {"\n\n  baudrate 9600\r\n", {{"baudrate", "9600"}}},
        {"baudrate  9600", {{"baudrate", " 9600"}}},
        {"xonxoff", {{"xonxoff", ""}}},
        {"key=value", {{"key=value", ""}}},
        {"a 1\nb\t2\na 3", {{"a", "1"}, {"b\t2", ""}, {"a", "3"}}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(splitOptions(c.text), c.expected) << c.text;
    }
}

TEST(ToUnsigned, FollowsThirtyTwoBitStoul) {
    const struct {
        const char* text;
        std::uint32_t value;
    } ok[] = {{"9600", 9600},      {" \t 9600", 9600}, {"9600abc", 9600},           {"+7", 7},
              {"-1", 4294967295u}, {"-0", 0},          {"4294967295", 4294967295u}, {"007", 7}};
    for (const auto& c : ok) {
        EXPECT_EQ(toUnsigned(c.text), c.value) << c.text;
    }
    for (const char* bad : {"", " ", "fast", "-", "+x", "x1"}) {
        EXPECT_THROW(toUnsigned(bad), std::invalid_argument) << bad;
    }
    for (const char* big : {"4294967296", "99999999999", "-4294967296", "123456789012345678901234567890"}) {
        EXPECT_THROW(toUnsigned(big), std::out_of_range) << big;
    }
}

TEST(ToBoolean, AcceptsExactLiteralsOnly) {
    for (const char* t : {"", "true", "on", "1"})
        EXPECT_TRUE(toBoolean(t)) << t;
    for (const char* f : {"false", "off", "0"})
        EXPECT_FALSE(toBoolean(f)) << f;
    for (const char* bad : {"TRUE", "yes", " on", "2"}) {
        EXPECT_THROW(toBoolean(bad), std::invalid_argument) << bad;
    }
}

TEST(RawOptionValue, TakesValueStraightFromText) {
    EXPECT_EQ(rawOptionValue("usb-vid 1027\r\nother 1", "usb-vid"), "1027");
    EXPECT_EQ(rawOptionValue("x 1\nproduct-name   Kalomet DRV2\n", "product-name"), "Kalomet DRV2");
    // Substring search: the key is found inside a longer key.
    EXPECT_EQ(rawOptionValue("find-usb-product-name A\n", "product-name"), "A");
    EXPECT_EQ(rawOptionValue("connect-timeout", "connect-timeout"), "");
    EXPECT_EQ(rawOptionValue("connect-timeout   ", "connect-timeout"), "");
    EXPECT_EQ(rawOptionValue("port 1", "connect-timeout"), "");
}

TEST(OptionReader, TypedGettersKeepDefaultsAndFirstValue) {
    OptionReader reader("baudrate 115200\nbaudrate 9600\nname a b\nflag\nset x\nset y\nset x\nn 1\nn 1");
    std::uint32_t baud = 5, absent = 42;
    bool flag = false;
    std::string name, none = "keep";
    std::optional<std::uint32_t> optAbsent;
    std::optional<std::string> optName;
    std::vector<std::string> set;
    std::vector<std::uint32_t> list;
    reader.get("baudrate", baud);
    reader.get("missing", absent);
    reader.get("flag", flag);
    reader.get("name", name);
    reader.get("none", none);
    reader.get("missing2", optAbsent);
    reader.get("name", optName);
    reader.getSet("set", set);
    reader.getList("n", list);
    EXPECT_EQ(baud, 115200u);
    EXPECT_EQ(absent, 42u);
    EXPECT_TRUE(flag);
    EXPECT_EQ(name, "a b");
    EXPECT_EQ(none, "keep");
    EXPECT_FALSE(optAbsent.has_value());
    EXPECT_EQ(optName, "a b");
    EXPECT_EQ(set, (std::vector<std::string>{"x", "y"}));
    EXPECT_EQ(list, (std::vector<std::uint32_t>{1, 1}));
}

TEST(OptionReader, ConversionFailuresNameTheKey) {
    // Each getter kind on a value it cannot convert: u = number, o = optional
    // number, b = boolean, l = number list.
    const struct {
        const char* text;
        char kind;
        const char* message;
    } cases[] = {
        {"k fast", 'u', "Conversion of k failed"},   {"k 99999999999", 'u', "Conversion of k failed"},
        {"k x", 'o', "Conversion of k failed"},      {"k  on", 'b', "Conversion of k failed"},
        {"k 1\nk z", 'l', "Conversion of k failed"}, {"k 1\nk 1", 'l', "no error"},
    };
    for (const auto& c : cases) {
        OptionReader r(c.text);
        EXPECT_EQ(errorOf([&] {
                      std::uint32_t u;
                      std::optional<std::uint32_t> o;
                      bool b;
                      std::vector<std::uint32_t> l;
                      c.kind == 'u'   ? r.get("k", u)
                      : c.kind == 'o' ? r.get("k", o)
                      : c.kind == 'b' ? r.get("k", b)
                                      : r.getList("k", l);
                  }),
                  c.message)
            << c.text;
    }
}

TEST(OptionReader, StrictRejectsFirstUnreadKey) {
    const struct {
        const char* text;
        const char* message;
    } cases[] = {
        {"bogus 1\nother", "no error"},
        {"strict\nbogus 1\nother", "Unknown option: bogus"},
        {"other\nstrict true\nbogus", "Unknown option: other"},
        {"strict 1\nknown 3\nbogus", "Unknown option: bogus"},
        {"strict on\nknown 3", "no error"},
        {"strict off\nbogus", "no error"},
        {"strict 0\nbogus", "no error"},
    };
    for (const auto& c : cases) {
        OptionReader reader(c.text);
        std::uint32_t known = 0;
        reader.get("known", known);
        EXPECT_EQ(errorOf([&] { reader.checkStrict(); }), c.message) << c.text;
    }
    OptionReader yes("strict yes");
    EXPECT_THROW(yes.checkStrict(), std::invalid_argument);
}

TEST(Fnv1a64, MatchesReferenceValues) {
    EXPECT_EQ(fnv1a64(""), 0xcbf29ce484222325ull);
    EXPECT_EQ(fnv1a64("a"), 0xaf63dc4c8601ec8cull);
}
