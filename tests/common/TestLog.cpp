// SPDX-License-Identifier: MIT
#include "tests/common/TestLog.h"

#include <stdlib.h>

#include <fstream>
#include <sstream>

namespace qktest {

const std::string& TempDir()
{
    static const std::string dir = [] {
        char tmpl[] = "/tmp/qkcam-test-XXXXXX";
        const char* made = mkdtemp(tmpl);
        return std::string(made ? made : "/tmp");
    }();
    return dir;
}

std::string LogPath() { return TempDir() + "/qkdll.log"; }
std::string ApiLogPath() { return TempDir() + "/qkdll_api.log"; }

// The whole main log as it stands now.
static std::string ReadLog()
{
    std::ifstream in(LogPath(), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

LogMark::LogMark() : offset(ReadLog().size()) {}

std::string LogMark::Since() const
{
    std::string all = ReadLog();
    return offset < all.size() ? all.substr(offset) : std::string();
}

int LogMark::Count(const std::string& text, const std::string& type) const
{
    std::istringstream lines(Since());
    std::string line;
    int n = 0;
    while (std::getline(lines, line))
        if (line.compare(0, type.size(), type) == 0 && line.find(text) != std::string::npos)
            ++n;
    return n;
}

} // namespace qktest
