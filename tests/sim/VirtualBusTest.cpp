// SPDX-License-Identifier: MIT
// The virtual bus as libusb sees it: devices, descriptors, strings and
// unplug (claims and hot-plug are seen through the engine's tests).

#include "tests/sim/SimBusTest.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace {

using namespace simtest;

std::string StringOf(libusb_device_handle* handle, uint8_t index)
{
    unsigned char text[256] = {};
    int length = libusb_get_string_descriptor_ascii(handle, index, text, sizeof text);
    return length < 0 ? "<error " + std::to_string(length) + ">" : std::string(reinterpret_cast<char*>(text));
}

class BusEnumeration : public SimBusTest {};

// Both cameras are on the bus before libusb starts, so that neither waits for hot-plug.
TEST_F(BusEnumeration, ListsTwoCamerasAnotherDeviceAndTheRootHub)
{
    auto sx = AddCamera("SX160", "AB");
    auto a = AddCamera("A1400", "XYZ");
    qksim::VirtualBus::Instance().AddOtherDevice(0x046d, 0xc077, "Mouse");
    EXPECT_EQ(sx->Path(), L"1193:12353:1:2");
    EXPECT_EQ(a->Path(), L"1193:12353:1:3");

    // Each device as vendor:product:bus:address, hubs marked.
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(Context(), &list);
    std::vector<std::wstring> seen;
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor d{};
        EXPECT_EQ(libusb_get_device_descriptor(list[i], &d), 0);
        seen.push_back(std::to_wstring(d.idVendor) + L":" + std::to_wstring(d.idProduct) + L":" +
                       std::to_wstring(libusb_get_bus_number(list[i])) + L":" +
                       std::to_wstring(libusb_get_device_address(list[i])) +
                       (d.bDeviceClass == LIBUSB_CLASS_HUB ? L" hub" : L""));
    }
    if (count >= 0)
        libusb_free_device_list(list, 1);
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<std::wstring>{L"1133:49271:1:4", sx->Path(), a->Path(), L"7531:2:1:1 hub"}));
}

TEST_F(BusEnumeration, AddressesAreGivenOutUsedAgainAndHonoured)
{
    auto first = AddCamera("SX160", "S1");
    auto second = AddCamera("SX160", "S2");
    qksim::VirtualBus::Instance().Remove(first);
    EXPECT_EQ(AddCamera("SX160", "S3")->Address(), first->Address());
    EXPECT_EQ(AddCamera("SX160", "S4")->Address(), second->Address() + 1);

    qksim::CameraSetup setup;
    setup.busNumber = 3;
    setup.address = 17;
    auto camera = qksim::VirtualBus::Instance().AddCamera(setup);
    ASSERT_TRUE(camera);
    EXPECT_EQ(camera->Path(), L"1193:12353:3:17");
    // An address in use is refused.
    EXPECT_FALSE(qksim::VirtualBus::Instance().AddCamera(setup));
}

class BusControl : public SimBusTest {};

TEST_F(BusControl, DescriptorsConfigurationStringsAndStalls)
{
    auto plain = AddCamera("SX160", "QKS0001");
    libusb_device_handle* handle = Open(*plain, false);
    ASSERT_NE(handle, nullptr);
    libusb_device_descriptor listed{};
    ASSERT_EQ(libusb_get_device_descriptor(libusb_get_device(handle), &listed), 0);
    EXPECT_EQ(StringOf(handle, listed.iProduct), "QK Virtual Camera SX160");
    EXPECT_EQ(StringOf(handle, listed.iSerialNumber), "QKS0001");

    // A short read over the wire gives what was asked for.
    Bytes config(9);
    ASSERT_EQ(libusb_get_descriptor(handle, LIBUSB_DT_CONFIG, 0, config.data(), 9), 9);
    EXPECT_EQ(Get16(config, 2), 9 + 9 + 3 * 7);

    libusb_config_descriptor* active = nullptr;
    ASSERT_EQ(libusb_get_active_config_descriptor(libusb_get_device(handle), &active), 0);
    ASSERT_EQ(active->bNumInterfaces, 1);
    const libusb_interface_descriptor& intf = active->interface[0].altsetting[0];
    EXPECT_EQ(intf.bInterfaceClass, 6); // still image
    ASSERT_GE(intf.bNumEndpoints, 2);
    for (int i : {0, 1}) {
        EXPECT_EQ(intf.endpoint[i].bEndpointAddress, i == 0 ? 0x81 : 0x02);
        EXPECT_EQ(intf.endpoint[i].wMaxPacketSize, 512);
    }
    libusb_free_config_descriptor(active);

    // Unknown requests stall.
    uint8_t data[4];
    EXPECT_EQ(libusb_control_transfer(handle, 0xC0, 0x42, 0, 0, data, 4, kTimeoutMs), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_get_string_descriptor(handle, 9, 0x0409, data, 4), LIBUSB_ERROR_PIPE);
    EXPECT_EQ(libusb_kernel_driver_active(handle, 0), 0);
}

class BusHotplug : public SimBusTest {
protected:
    // Polls the device list until the camera is (or is no longer) there.
    bool WaitListed(const qksim::VirtualCamera& camera, bool listed)
    {
        for (int i = 0; i < 200; ++i) {
            libusb_device* device = Find(camera);
            if (device)
                libusb_unref_device(device);
            if ((device != nullptr) == listed)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
};

TEST_F(BusHotplug, UnplugEndsAWaitingReadAndLeavesOnlyNoDevice)
{
    auto camera = AddCamera("SX160", "QKS0001");
    libusb_device_handle* handle = Open(*camera);
    ASSERT_NE(handle, nullptr);
    EXPECT_TRUE(camera->Plugged());
    int result = 0;
    auto start = std::chrono::steady_clock::now();
    std::thread reader([&] { Receive(handle, 512, &result, 5000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    camera->Unplug();
    reader.join();
    EXPECT_EQ(result, LIBUSB_ERROR_NO_DEVICE);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    EXPECT_FALSE(camera->Plugged());
    Receive(handle, 512, &result);
    EXPECT_EQ(result, LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(Send(handle, Command(0x1002, 0, {1})), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_EQ(libusb_clear_halt(handle, 0x81), LIBUSB_ERROR_NO_DEVICE);
    EXPECT_TRUE(WaitListed(*camera, false));
}

} // namespace
