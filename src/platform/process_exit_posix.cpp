#include "platform/process_exit.h"

namespace kmio {

bool processIsExiting() noexcept {
    return false;
}

}  // namespace kmio
