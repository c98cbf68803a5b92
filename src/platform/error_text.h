#pragma once

#include <string>

namespace kmio {

// The operating system's message for an error number (errno on POSIX).
std::string systemErrorText(int error);

// The operating system's message for the calling thread's last error.
std::string lastSystemErrorText();

}  // namespace kmio
