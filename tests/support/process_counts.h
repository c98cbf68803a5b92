#pragma once

#include <dirent.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <map>
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

// What each open descriptor refers to ("socket:[123]", "/dev/ptmx", ...),
// by number, for telling which one leaked.
inline std::map<int, std::string> descriptorTargets() {
    std::map<int, std::string> targets;
    DIR* dir = ::opendir("/proc/self/fd");
    if (dir == nullptr) {
        return targets;
    }
    const int own = ::dirfd(dir);
    while (const dirent* entry = ::readdir(dir)) {
        if (entry->d_name[0] == '.' || std::atoi(entry->d_name) == own) {
            continue;
        }
        char target[256] = {};
        const ssize_t n = ::readlinkat(own, entry->d_name, target, sizeof target - 1);
        targets[std::atoi(entry->d_name)] = n > 0 ? std::string(target, static_cast<std::size_t>(n)) : "?";
    }
    ::closedir(dir);
    return targets;
}

}  // namespace kmiotest
