#pragma once

#include <cstdint>
#include <utility>

namespace kmio {

// The one place where exceptions become result codes. Inner layers throw;
// each operation that the exported functions reach runs its body through
// resultOf with its kind, and the kind alone decides the code:
//
//  kind           option error (*)   anything else
//  Open           4 bad options      5 open failed
//  Send           9 send failed      9 send failed
//  Property       10 not supported   10 not supported
//  Enumeration    4 bad options      13 enumeration failed
//  GlobalOptions  4 bad options      4 bad options (the settings stay as they were)
//
// (*) OptionsError, and the std::invalid_argument of a value converted
// outside an option set (a "strict" value that is not a boolean; an
// std::out_of_range counts the same).
//
// Enumeration and GlobalOptions pass a std::system_error with
// resource_deadlock_would_occur on unchanged: it is the re-entry of the table
// mutex from the event callback, a bug of the caller that must stay visible.
enum class OperationKind { Open, Send, Property, Enumeration, GlobalOptions };

// The result code for the exception being handled. Call only inside a catch
// block; rethrows what the kind passes on.
std::uint32_t resultForCurrentException(OperationKind kind);

// Runs body (returning a KM_IO_* code) and turns whatever it throws into the
// code of its kind.
template <class Body>
std::uint32_t resultOf(OperationKind kind, Body&& body) {
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        return resultForCurrentException(kind);
    }
}

}  // namespace kmio
