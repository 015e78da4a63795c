// SPDX-License-Identifier: MIT
#pragma once
// Runs a program as a child of the test and keeps what it printed.

#include <string>
#include <vector>

namespace qktest {

struct ChildRun {
    int status = -1; // exit status, -1 when it didn't exit normally
    std::string out;
    std::string err;
};

// With `alone`, the child starts without this process's virtual bus (no
// preload, no testbed), as from a shell.
ChildRun RunChild(const std::vector<std::string>& argv, bool alone = false);

} // namespace qktest
