#pragma once
// Fixture for tests that drive the engine against virtual cameras through
// the real libusb.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sim/VirtualBus.h"
#include "usb/UsbLib_libusb.h"

namespace qktest {

class VirtualCameraTest : public ::testing::Test {
protected:
    void TearDown() override
    {
        usb.reset();
        qksim::VirtualBus::Instance().RemoveAll();
    }

    std::shared_ptr<qksim::VirtualCamera> AddCamera(const std::string& model, const std::string& serial,
                                                    const std::string& product = "")
    {
        qksim::CameraSetup setup;
        setup.model = model;
        setup.serial = serial;
        setup.product = product;
        return qksim::VirtualBus::Instance().AddCamera(setup);
    }

    // The transport is built after the cameras are on the bus, as a host would.
    std::shared_ptr<UsbLib> Transport()
    {
        if (!usb)
            usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
        return usb;
    }

    std::shared_ptr<UsbLib> usb;
};

inline std::vector<uint8_t> Pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
    return bytes;
}

} // namespace qktest
