#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kmiotest {

// Reads a program's growing output line by line, each whole line once: the
// child-process helpers of both systems wait for a line this way.
class LineCursor {
public:
    // True when a whole line after the one matched last holds text; the
    // lines looked at are not looked at again.
    bool nextLineHolding(const std::string& output, std::string_view text) {
        for (std::size_t end; (end = output.find('\n', next_)) != std::string::npos;) {
            const auto line = std::string_view(output).substr(next_, end - next_);
            next_ = end + 1;
            if (line.find(text) != std::string_view::npos) {
                return true;
            }
        }
        return false;
    }

private:
    std::size_t next_ = 0;
};

}  // namespace kmiotest
