#pragma once

#include <utility>

#include "usb/d2xx_binding.h"

namespace kmio {

// One open chip, closed with FT_Close when the object goes away, so that no
// failure path of an open sequence or a probe leaves a chip open.
class FtdiHandle {
public:
    FtdiHandle() = default;
    FtdiHandle(const D2xxEntryPoints& api, d2xx::FT_HANDLE handle) noexcept : api_(&api), handle_(handle) {}
    FtdiHandle(const FtdiHandle&) = delete;
    FtdiHandle& operator=(const FtdiHandle&) = delete;
    FtdiHandle(FtdiHandle&& other) noexcept
        : api_(other.api_), handle_(std::exchange(other.handle_, nullptr)) {}
    FtdiHandle& operator=(FtdiHandle&& other) noexcept {
        if (this != &other) {
            reset();
            api_ = other.api_;
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    ~FtdiHandle() { reset(); }

    d2xx::FT_HANDLE get() const noexcept { return handle_; }
    explicit operator bool() const noexcept { return handle_ != nullptr; }

    void reset() noexcept {
        if (handle_ != nullptr) {
            api_->FT_Close(std::exchange(handle_, nullptr));
        }
    }

private:
    const D2xxEntryPoints* api_ = nullptr;
    d2xx::FT_HANDLE handle_ = nullptr;
};

}  // namespace kmio
