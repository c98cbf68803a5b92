#pragma once

#include <string>

namespace kmio {

// A shared library loaded at run time and unloaded when the object goes away.
// Loading is by name through the system's own search (on Linux the loader's
// search path: LD_LIBRARY_PATH, the caller's run path, the ld.so cache, the
// default folders), or by path when the name holds a folder separator.
// Symbols are bound at load time and kept private to the library, so a
// missing dependency fails the load instead of a later call.
class DynamicLibrary {
public:
    DynamicLibrary() = default;
    // Loads the library; an object that failed to load is empty (see loaded()).
    explicit DynamicLibrary(const std::string& name);
    DynamicLibrary(const DynamicLibrary&) = delete;
    DynamicLibrary& operator=(const DynamicLibrary&) = delete;
    DynamicLibrary(DynamicLibrary&& other) noexcept;
    DynamicLibrary& operator=(DynamicLibrary&& other) noexcept;
    ~DynamicLibrary();

    bool loaded() const noexcept { return handle_ != nullptr; }
    explicit operator bool() const noexcept { return loaded(); }

    // The address of an exported symbol, or null when the library lacks it
    // (or is not loaded).
    void* symbol(const char* name) const noexcept;

    // Why the load failed, in the system's words; empty after a success.
    const std::string& error() const noexcept { return error_; }

private:
    void reset() noexcept;

    void* handle_ = nullptr;
    std::string error_;
};

}  // namespace kmio
