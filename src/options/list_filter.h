#pragma once

#include <algorithm>
#include <vector>

namespace kmio {

// The rule of every find- filter and option list that selects: an empty list
// admits everything; otherwise the value must be one of the list's entries,
// compared exactly.
template <class T, class U>
bool admits(const std::vector<T>& wanted, const U& value) {
    return wanted.empty() || std::find(wanted.begin(), wanted.end(), value) != wanted.end();
}

}  // namespace kmio
