// SPDX-License-Identifier: MIT
// Test entry: logs go to a directory of this process (removed when all its
// tests pass), and tests that talk to virtual cameras first get the virtual
// bus's preload into the process.
#include <gtest/gtest.h>

#include <ftw.h>
#include <unistd.h>

#include <cstring>

#include "log/Log.h"
#include "tests/common/TestLog.h"
#ifdef QK_TEST_WITH_VIRTUAL_BUS
#include "sim/VirtualBus.h"
#endif

int main(int argc, char** argv)
{
#ifdef QK_TEST_WITH_VIRTUAL_BUS
    // Listing the tests needs no bus, and starts no thread a sanitizer could
    // report on while ctest reads the list.
    bool listing = false;
    for (int i = 1; i < argc; ++i)
        listing = listing || std::strcmp(argv[i], "--gtest_list_tests") == 0;
    if (!listing && !qksim::VirtualBus::EnsurePreload(argc, argv))
        return 2;
#endif
    LoggerSpecialInit(false, qktest::LogPath(), qktest::ApiLogPath());
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    // A passing process leaves nothing behind; a failing one keeps its log.
    const std::string& dir = qktest::TempDir();
    if (result == 0 && dir.rfind("/tmp/qkcam-test-", 0) == 0)
        nftw(
            dir.c_str(),
            [](const char* path, const struct stat*, int, struct FTW*) { return remove(path); }, 16,
            FTW_DEPTH | FTW_PHYS);
    return result;
}
