// Test entry: logs go to a directory of this process, and tests that talk to
// virtual cameras first get the virtual bus's preload into the process.
#include <gtest/gtest.h>

#include "log/Log.h"
#include "tests/common/TestLog.h"
#ifdef QK_TEST_WITH_VIRTUAL_BUS
#include "sim/VirtualBus.h"
#endif

int main(int argc, char** argv)
{
#ifdef QK_TEST_WITH_VIRTUAL_BUS
    if (!qksim::VirtualBus::EnsurePreload(argc, argv))
        return 2;
#endif
    LoggerSpecialInit(false, qktest::LogPath(), qktest::ApiLogPath());
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
