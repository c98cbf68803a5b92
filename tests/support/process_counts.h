#pragma once

#include <dirent.h>

#include <cstddef>
#include <string>

namespace kmiotest {

// The number of entries of a /proc/self folder: threads in task, open
// descriptors in fd (the one that reads the folder excluded).
inline std::size_t procEntries(const char* folder) {
    DIR* dir = ::opendir((std::string("/proc/self/") + folder).c_str());
    if (dir == nullptr) {
        return 0;
    }
    std::size_t count = 0;
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] != '.') {
            ++count;
        }
    }
    ::closedir(dir);
    return std::string(folder) == "fd" ? count - 1 : count;
}

inline std::size_t threadCount() {
    return procEntries("task");
}

inline std::size_t descriptorCount() {
    return procEntries("fd");
}

}  // namespace kmiotest
