// SPDX-License-Identifier: MIT
#pragma once
// What a virtual USB device says about itself: its standard descriptors and
// the sysfs record through which the host's libusb finds it.

#include <cstdint>
#include <string>
#include <vector>

namespace qksim {

struct UsbIdentity {
    enum class Kind { Camera, Other, RootHub };
    Kind kind = Kind::Camera;
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string manufacturer;
    std::string product;
    std::string serial;
};

constexpr uint8_t kBulkIn = 0x81;
constexpr uint8_t kBulkOut = 0x02;
constexpr uint8_t kInterruptIn = 0x83;

// String indices in the device descriptor.
constexpr uint8_t kManufacturerIndex = 1;
constexpr uint8_t kProductIndex = 2;
constexpr uint8_t kSerialIndex = 3;

std::vector<uint8_t> DeviceDescriptor(const UsbIdentity& id);
std::vector<uint8_t> ConfigurationDescriptor(const UsbIdentity& id);
// String descriptor `index` (0: the language list); empty when there is none.
std::vector<uint8_t> StringDescriptor(const UsbIdentity& id, uint8_t index);

// A device record for umockdev_testbed_add_from_string.
std::string SysfsRecord(const UsbIdentity& id, const std::string& sysPath, int bus, int address);

// The device node below /dev, "bus/usb/BBB/DDD".
std::string DeviceNode(int bus, int address);

} // namespace qksim
