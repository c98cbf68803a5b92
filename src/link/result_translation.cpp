#include "link/result_translation.h"

#include <stdexcept>
#include <system_error>

#include "kmio/kmio.h"
#include "options/options_error.h"

namespace kmio {

namespace {

struct Codes {
    std::uint32_t badOptions;
    std::uint32_t otherFailure;
    bool passesReentryOn;
};

Codes codesOf(OperationKind kind) {
    switch (kind) {
        case OperationKind::Open:
            return {KM_IO_ERR_BAD_OPTIONS, KM_IO_ERR_OPEN_FAILED, false};
        case OperationKind::Send:
            return {KM_IO_ERR_SEND_FAILED, KM_IO_ERR_SEND_FAILED, false};
        case OperationKind::Property:
            return {KM_IO_ERR_NOT_SUPPORTED, KM_IO_ERR_NOT_SUPPORTED, false};
        case OperationKind::Enumeration:
            return {KM_IO_ERR_BAD_OPTIONS, KM_IO_ERR_ENUMERATION_FAILED, true};
        case OperationKind::GlobalOptions:
            return {KM_IO_ERR_BAD_OPTIONS, KM_IO_ERR_BAD_OPTIONS, true};
    }
    return {KM_IO_ERR_BAD_OPTIONS, KM_IO_ERR_OPEN_FAILED, false};
}

}  // namespace

std::uint32_t resultForCurrentException(OperationKind kind) {
    const Codes codes = codesOf(kind);
    try {
        throw;
    } catch (const OptionsError&) {
        return codes.badOptions;
    } catch (const std::invalid_argument&) {
        return codes.badOptions;
    } catch (const std::out_of_range&) {
        return codes.badOptions;
    } catch (const std::system_error& e) {
        if (codes.passesReentryOn && e.code() == std::errc::resource_deadlock_would_occur) {
            throw;
        }
        return codes.otherFailure;
    } catch (...) {
        return codes.otherFailure;
    }
}

}  // namespace kmio
