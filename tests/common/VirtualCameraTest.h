// SPDX-License-Identifier: MIT
#pragma once
// Fixture for tests that drive the engine against virtual cameras through
// the real libusb.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "sim/PtpReplies.h"
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

    // A host's camera object on `camera`, opened.
    template <class Device>
    std::shared_ptr<Device> OpenDevice(const qksim::VirtualCamera& camera)
    {
        auto device = std::make_shared<Device>(Transport(), camera.Path());
        EXPECT_EQ(device->Init(), QK_OK);
        return device;
    }

    std::shared_ptr<UsbLib> usb;
};

// One camera of a chosen model and a host's object of kind Device on it.
template <class Device>
class OneCameraTest : public VirtualCameraTest {
protected:
    void TearDown() override
    {
        device.reset();
        VirtualCameraTest::TearDown();
    }
    void Open(const std::string& model, const std::string& serial = "QKS0001")
    {
        camera = AddCamera(model, serial);
        ASSERT_TRUE(camera);
        device = OpenDevice<Device>(*camera);
    }
    // The camera gives this reply to the operation, or to the vendor
    // operation's sub-command, until the answer is reset.
    void Answer(uint16_t code, qksim::PtpReply reply)
    {
        camera->SetOperationHandler(code, [reply](const qksim::PtpCommand&) { return reply; });
    }
    void AnswerVendor(uint32_t subCommand, qksim::PtpReply reply)
    {
        camera->SetVendorHandler(subCommand, [reply](const qksim::PtpCommand&) { return reply; });
    }

    std::shared_ptr<qksim::VirtualCamera> camera;
    std::shared_ptr<Device> device;
};

// One vendor sub-command as the camera received it, and the parameters behind it.
using VendorCall = std::pair<uint32_t, std::vector<uint32_t>>;

inline std::vector<VendorCall> VendorCalls(const qksim::VirtualCamera& camera, uint32_t only = 0)
{
    std::vector<VendorCall> calls;
    for (const qksim::PtpCommand& c : camera.ReceivedCommands())
        if (c.code == PTP_OC_QKM && !c.params.empty() && (!only || c.params[0] == only))
            calls.push_back({c.params[0], std::vector<uint32_t>(c.params.begin() + 1, c.params.end())});
    return calls;
}

// Commands received with this operation code and, for the vendor operation, this sub-command.
inline int CountSent(const qksim::VirtualCamera& camera, uint16_t code, int subCommand = -1)
{
    int n = 0;
    for (const qksim::PtpCommand& c : camera.ReceivedCommands())
        n += c.code == code &&
             (subCommand < 0 || (!c.params.empty() && c.params[0] == static_cast<uint32_t>(subCommand)));
    return n;
}

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
