// SPDX-License-Identifier: MIT
// qkcam-virtual-probe: a plain libusb-1.0 program that shows what is on the
// bus, to check a setup of virtual (or real) cameras without the engine.
// One line per device: vendor:product:bus:address (decimal) and the product
// string; for cameras also the serial number, asked over PTP.

#include <libusb-1.0/libusb.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr uint16_t kCameraVendor = 0x04A9;
constexpr uint16_t kCameraProduct = 0x3041;
constexpr unsigned kTimeoutMs = 2000;

void Put32(std::vector<uint8_t>& out, uint32_t value)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

// Reads one container; the device ends it with a short packet.
bool ReadContainer(libusb_device_handle* handle, std::vector<uint8_t>& out)
{
    out.clear();
    uint8_t packet[512];
    for (;;) {
        int got = 0;
        int result = libusb_bulk_transfer(handle, 0x81, packet, sizeof packet, &got, kTimeoutMs);
        if (result != 0)
            return false;
        out.insert(out.end(), packet, packet + got);
        if (got < static_cast<int>(sizeof packet))
            return out.size() >= 12;
    }
}

std::string AskSerial(libusb_device_handle* handle)
{
    // The vendor operation with its serial-number sub-command.
    std::vector<uint8_t> command;
    Put32(command, 16);
    command.insert(command.end(), {0x01, 0x00, 0x99, 0x99});
    Put32(command, 0);
    Put32(command, 0xA1);
    int sent = 0;
    if (libusb_bulk_transfer(handle, 0x02, command.data(), static_cast<int>(command.size()), &sent,
                             kTimeoutMs) != 0)
        return "(no answer)";
    std::vector<uint8_t> data;
    std::vector<uint8_t> response;
    if (!ReadContainer(handle, data) || data[4] != 2 || !ReadContainer(handle, response))
        return "(no answer)";
    std::string serial;
    for (size_t i = 12; i < data.size(); i += 2)
        serial += static_cast<char>(data[i]);
    return serial;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::printf("Usage: qkcam-virtual-probe [EXIT-STATUS]\n"
                    "Lists the USB devices that libusb-1.0 sees; asks cameras for their serial.\n");
        return 0;
    }
    const int exitStatus = argc > 1 ? std::atoi(argv[1]) : 0;
    if (libusb_init(nullptr) != 0) {
        std::fprintf(stderr, "libusb_init failed\n");
        return 1;
    }
    libusb_device** list = nullptr;
    ssize_t count = libusb_get_device_list(nullptr, &list);
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device* device = list[i];
        libusb_device_descriptor descriptor{};
        if (libusb_get_device_descriptor(device, &descriptor) != 0)
            continue;
        std::printf("%u:%u:%u:%u", descriptor.idVendor, descriptor.idProduct,
                    libusb_get_bus_number(device), libusb_get_device_address(device));
        libusb_device_handle* handle = nullptr;
        if (libusb_open(device, &handle) != 0) {
            std::printf(" (cannot open)\n");
            continue;
        }
        unsigned char product[256] = {};
        if (libusb_get_string_descriptor_ascii(handle, descriptor.iProduct, product, sizeof product) >= 0)
            std::printf(" \"%s\"", reinterpret_cast<char*>(product));
        if (descriptor.idVendor == kCameraVendor && descriptor.idProduct == kCameraProduct) {
            if (libusb_claim_interface(handle, 0) == 0) {
                std::printf(" serial %s", AskSerial(handle).c_str());
                libusb_release_interface(handle, 0);
            } else {
                std::printf(" (busy)");
            }
        }
        std::printf("\n");
        libusb_close(handle);
    }
    if (count >= 0)
        libusb_free_device_list(list, 1);
    libusb_exit(nullptr);
    return exitStatus;
}
