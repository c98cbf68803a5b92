#include "link/result_translation.h"

#include <gtest/gtest.h>

#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <system_error>

#include "kmio/kmio.h"
#include "options/options_error.h"

namespace kmio {
namespace {

const std::system_error reentry(std::make_error_code(std::errc::resource_deadlock_would_occur));

// What an inner layer may throw, by the rows of the table below.
const std::function<void()> throwers[] = {
    [] { throw OptionsError("Unknown option: x"); },
    [] { throw std::invalid_argument("Invalid boolean literal"); },
    [] { throw std::out_of_range("stoul argument out of range"); },
    [] { throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again)); },
    [] { throw std::bad_alloc(); },
    [] { throw 42; },
};

TEST(ResultTranslation, EachKindGivesItsCodeForEachFailure) {
    const struct {
        OperationKind kind;
        const char* name;
        std::uint32_t codes[std::size(throwers)];
    } kinds[] = {
        {OperationKind::Open, "open", {4, 4, 4, 5, 5, 5}},
        {OperationKind::Send, "send", {9, 9, 9, 9, 9, 9}},
        {OperationKind::Property, "property", {10, 10, 10, 10, 10, 10}},
        {OperationKind::Enumeration, "enumeration", {4, 4, 4, 13, 13, 13}},
        {OperationKind::GlobalOptions, "global options", {4, 4, 4, 4, 4, 4}},
    };
    for (const auto& k : kinds) {
        for (std::size_t row = 0; row < std::size(throwers); ++row) {
            SCOPED_TRACE(std::string(k.name) + ", failure " + std::to_string(row));
            EXPECT_EQ(resultOf(k.kind,
                               [&]() -> std::uint32_t {
                                   throwers[row]();
                                   return KM_IO_OK;
                               }),
                      k.codes[row]);
        }
    }
}

TEST(ResultTranslation, ABodyThatReturnsKeepsItsCode) {
    EXPECT_EQ(resultOf(OperationKind::Open, [] { return KM_IO_ERR_NOT_FOUND; }), KM_IO_ERR_NOT_FOUND);
    EXPECT_EQ(resultOf(OperationKind::Send, [] { return KM_IO_OK; }), KM_IO_OK);
}

TEST(ResultTranslation, TableReentryPassesThroughEnumerationAndGlobalOptionsOnly) {
    const auto reenter = []() -> std::uint32_t { throw reentry; };
    EXPECT_THROW(resultOf(OperationKind::Enumeration, reenter), std::system_error);
    EXPECT_THROW(resultOf(OperationKind::GlobalOptions, reenter), std::system_error);
    EXPECT_EQ(resultOf(OperationKind::Open, reenter), KM_IO_ERR_OPEN_FAILED);
    EXPECT_EQ(resultOf(OperationKind::Send, reenter), KM_IO_ERR_SEND_FAILED);
}

}  // namespace
}  // namespace kmio
