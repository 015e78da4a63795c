// SPDX-License-Identifier: MIT
#pragma once
// The log of a test process: where it is and what was written to it.
#include <string>

namespace qktest {

// Directory made for this process; the logs lie in it.
const std::string& TempDir();
std::string LogPath();
std::string ApiLogPath();

// Remembers the end of the main log, so a test reads only its own lines.
class LogMark {
public:
    LogMark();
    std::string Since() const;
    // Number of lines since the mark that contain `text`, of one type
    // ("DEB", "INF" or "ERR") if one is given.
    int Count(const std::string& text, const std::string& type = "") const;

private:
    std::size_t offset;
};

} // namespace qktest
