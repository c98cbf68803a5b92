#include "platform/error_text.h"

#include <cerrno>
#include <system_error>

namespace kmio {

std::string systemErrorText(int error) { return std::system_category().message(error); }

std::string lastSystemErrorText() { return systemErrorText(errno); }

}  // namespace kmio
