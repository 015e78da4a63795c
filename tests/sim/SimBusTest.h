// SPDX-License-Identifier: MIT
#pragma once
// Fixture for talking to virtual cameras through plain libusb calls, as any
// host program would.

#include <libusb-1.0/libusb.h>

#include "sim/PtpContainer.h"
#include "tests/common/VirtualCameraTest.h"

namespace simtest {

using Bytes = std::vector<uint8_t>;

constexpr unsigned kTimeoutMs = 2000;

// A little-endian field, bounds-checked so that a short reply fails the test
// instead of reading past it.
inline uint16_t Get16(const Bytes& in, size_t at) { return qksim::GetLe16(&in.at(at + 1) - 1); }

inline Bytes Command(uint16_t code, uint32_t transId, const std::vector<uint32_t>& params)
{
    return qksim::MakeParamContainer(qksim::ptp::kCommand, code, transId, params);
}

// The vendor operation asking for the serial number, transaction 0.
const Bytes kSerialRequest{0x10, 0, 0, 0, 1, 0, 0x99, 0x99, 0, 0, 0, 0, 0xA1, 0, 0, 0};

class SimBusTest : public qktest::VirtualCameraTest {
protected:
    void TearDown() override
    {
        for (libusb_device_handle* handle : handles)
            libusb_close(handle);
        if (context)
            libusb_exit(context);
        VirtualCameraTest::TearDown();
    }

    libusb_context* Context()
    {
        if (!context) {
            EXPECT_EQ(libusb_init(&context), 0);
        }
        return context;
    }

    // The device at the camera's bus and address; it holds a reference.
    libusb_device* Find(const qksim::VirtualCamera& camera)
    {
        libusb_device** list = nullptr;
        ssize_t count = libusb_get_device_list(Context(), &list);
        libusb_device* found = nullptr;
        for (ssize_t i = 0; i < count; ++i) {
            if (libusb_get_bus_number(list[i]) == camera.BusNumber() &&
                libusb_get_device_address(list[i]) == camera.Address())
                found = libusb_ref_device(list[i]);
        }
        if (count >= 0)
            libusb_free_device_list(list, 1);
        return found;
    }

    // Opened, interface 0 claimed if asked; closed by the fixture.
    libusb_device_handle* Open(const qksim::VirtualCamera& camera, bool claim = true)
    {
        libusb_device* device = Find(camera);
        EXPECT_NE(device, nullptr);
        libusb_device_handle* handle = nullptr;
        if (device) {
            EXPECT_EQ(libusb_open(device, &handle), 0);
            libusb_unref_device(device);
        }
        if (handle)
            handles.push_back(handle);
        if (handle && claim) {
            EXPECT_EQ(libusb_claim_interface(handle, 0), 0);
        }
        return handle;
    }

    static int Send(libusb_device_handle* handle, Bytes bytes, unsigned timeoutMs = kTimeoutMs)
    {
        int sent = 0;
        int result = libusb_bulk_transfer(handle, 0x02, bytes.data(), static_cast<int>(bytes.size()), &sent,
                                          timeoutMs);
        if (result == 0) {
            EXPECT_EQ(sent, static_cast<int>(bytes.size()));
        }
        return result;
    }

    // One bulk IN transfer of `length` bytes; what came, and the result code.
    static Bytes Receive(libusb_device_handle* handle, int length, int* result = nullptr,
                         unsigned timeoutMs = kTimeoutMs)
    {
        Bytes buffer(static_cast<size_t>(length));
        int got = 0;
        int code = libusb_bulk_transfer(handle, 0x81, buffer.data(), length, &got, timeoutMs);
        if (result) {
            *result = code;
        } else {
            EXPECT_EQ(code, 0);
        }
        buffer.resize(static_cast<size_t>(got));
        return buffer;
    }

    libusb_context* context = nullptr;
    std::vector<libusb_device_handle*> handles;
};

// One SX160 "QKS0001", opened and claimed before each test.
class SimOpenCamera : public SimBusTest {
protected:
    void SetUp() override
    {
        camera = AddCamera("SX160", "QKS0001");
        ASSERT_TRUE(camera);
        handle = Open(*camera);
        ASSERT_NE(handle, nullptr);
    }

    std::shared_ptr<qksim::VirtualCamera> camera;
    libusb_device_handle* handle = nullptr;
};

} // namespace simtest
