#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <map>
#include <string>

namespace kmiotest {

// The entries of a /proc/self folder by number (threads in task, open
// descriptors in fd, the one that reads the folder excluded), each with what
// its link refers to ("socket:[123]", "/dev/ptmx", ...), for telling which
// descriptor leaked.
inline std::map<int, std::string> procEntries(const char* folder) {
    std::map<int, std::string> entries;
    DIR* dir = ::opendir((std::string("/proc/self/") + folder).c_str());
    if (dir == nullptr) {
        return entries;
    }
    const int own = ::dirfd(dir);
    const bool descriptors = std::string(folder) == "fd";
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.' || (descriptors && std::atoi(entry->d_name) == own)) {
            continue;
        }
        char target[256] = {};
        const ssize_t n = ::readlinkat(own, entry->d_name, target, sizeof target - 1);
        entries[std::atoi(entry->d_name)] = n > 0 ? std::string(target, static_cast<std::size_t>(n)) : "?";
    }
    ::closedir(dir);
    return entries;
}

inline std::size_t threadCount() {
    return procEntries("task").size();
}

inline std::size_t descriptorCount() {
    return procEntries("fd").size();
}

inline std::map<int, std::string> descriptorTargets() {
    return procEntries("fd");
}

}  // namespace kmiotest
