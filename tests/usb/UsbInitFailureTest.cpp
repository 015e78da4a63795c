// SPDX-License-Identifier: MIT
// A transport whose libusb can't start: this program's libusb_init always
// fails, and nothing may hand libusb the context that isn't there.

#include <gtest/gtest.h>
#include <libusb.h>

#include "DevicePTP/DevicePTP.h"
#include "tests/common/TestLog.h"
#include "usb/UsbLib_libusb.h"

namespace {
int exits = 0;
}

extern "C" int libusb_init(libusb_context**) { return LIBUSB_ERROR_NO_MEM; }
extern "C" void libusb_exit(libusb_context*) { ++exits; }

namespace {

using qktest::LogMark;

TEST(UsbInitFailure, NothingIsListedOrOpenedAndTheReasonIsLogged)
{
    LogMark mark;
    {
        auto usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
        EXPECT_TRUE(usb->GetAllConnectedDevicePaths().empty());
        auto camera = DevicePTP::build(usb, L"1193:12353:1:2");
        EXPECT_EQ(camera->Init(), QK_ERROR);
        EXPECT_EQ(camera->QKMLoadSerialNumber(), QK_ERROR);
    }
    EXPECT_EQ(mark.Count("libusb_init error: -11", "ERR"), 1);
    EXPECT_EQ(mark.Count("GetAllConnectedDevicePaths: libusb is not initialised", "ERR"), 1);
    EXPECT_EQ(mark.Count("OpenDevice: libusb is not initialised", "ERR"), 1);
    EXPECT_EQ(exits, 0);
}

} // namespace
