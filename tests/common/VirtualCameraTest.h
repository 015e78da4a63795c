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

    // At the next free address unless one is given.
    std::shared_ptr<qksim::VirtualCamera> AddCamera(const std::string& model, const std::string& serial,
                                                    const std::string& product = "", int address = 0)
    {
        qksim::CameraSetup setup;
        setup.model = model;
        setup.serial = serial;
        setup.product = product;
        setup.address = address;
        auto camera = qksim::VirtualBus::Instance().AddCamera(setup);
        EXPECT_TRUE(camera) << model << " " << serial;
        return camera;
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

// Commands as {length, type, code, transaction id, parameters...}, to compare whole.
inline std::vector<std::vector<uint32_t>> Records(const std::vector<qksim::PtpCommand>& commands)
{
    std::vector<std::vector<uint32_t>> records;
    for (const qksim::PtpCommand& c : commands) {
        records.push_back({c.length, c.type, c.code, c.transId});
        records.back().insert(records.back().end(), c.params.begin(), c.params.end());
    }
    return records;
}

inline std::vector<uint8_t> Pattern(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(seed + i * 7 + (i >> 9));
    return bytes;
}

} // namespace qktest
