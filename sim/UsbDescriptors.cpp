// SPDX-License-Identifier: MIT
#include "sim/UsbDescriptors.h"

#include <cstdio>

namespace qksim {

namespace {

void Put16(std::vector<uint8_t>& out, uint16_t value)
{
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void Endpoint(std::vector<uint8_t>& out, uint8_t address, uint8_t attributes, uint16_t maxPacket,
              uint8_t interval)
{
    out.insert(out.end(), {7, 5, address, attributes});
    Put16(out, maxPacket);
    out.push_back(interval);
}

// sysfs attributes are one line; the record format escapes only newlines.
std::string OneLine(const std::string& text)
{
    std::string out;
    for (char c : text)
        out += (c >= 0x20 && c < 0x7F && c != '\\') ? c : '?';
    return out;
}

std::string Hex(const std::vector<uint8_t>& bytes)
{
    std::string out;
    char two[3];
    for (uint8_t b : bytes) {
        std::snprintf(two, sizeof two, "%02X", b);
        out += two;
    }
    return out;
}

std::string Format(const char* format, unsigned value)
{
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

} // namespace

std::vector<uint8_t> DeviceDescriptor(const UsbIdentity& id)
{
    const bool hub = id.kind == UsbIdentity::Kind::RootHub;
    std::vector<uint8_t> out{18, 1};
    Put16(out, 0x0200);
    out.insert(out.end(), {static_cast<uint8_t>(hub ? 9 : 0), 0, static_cast<uint8_t>(hub ? 1 : 0), 64});
    Put16(out, id.vendorId);
    Put16(out, id.productId);
    Put16(out, 0x0001);
    out.insert(out.end(), {kManufacturerIndex, kProductIndex, kSerialIndex, 1});
    return out;
}

std::vector<uint8_t> ConfigurationDescriptor(const UsbIdentity& id)
{
    std::vector<uint8_t> body;
    switch (id.kind) {
    case UsbIdentity::Kind::Camera:
        body = {9, 4, 0, 0, 3, 6, 1, 1, 0};
        Endpoint(body, kBulkIn, 2, 512, 0);
        Endpoint(body, kBulkOut, 2, 512, 0);
        Endpoint(body, kInterruptIn, 3, 64, 9);
        break;
    case UsbIdentity::Kind::Other:
        body = {9, 4, 0, 0, 2, 0xFF, 0xFF, 0xFF, 0};
        Endpoint(body, kBulkIn, 2, 512, 0);
        Endpoint(body, kBulkOut, 2, 512, 0);
        break;
    case UsbIdentity::Kind::RootHub:
        body = {9, 4, 0, 0, 1, 9, 0, 0, 0};
        Endpoint(body, 0x81, 3, 4, 12);
        break;
    }
    std::vector<uint8_t> out{9, 2};
    Put16(out, static_cast<uint16_t>(9 + body.size()));
    out.insert(out.end(), {1, 1, 0, 0xC0, 50});
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

std::vector<uint8_t> StringDescriptor(const UsbIdentity& id, uint8_t index)
{
    const std::string* text = nullptr;
    switch (index) {
    case 0:
        return {4, 3, 0x09, 0x04};
    case kManufacturerIndex:
        text = &id.manufacturer;
        break;
    case kProductIndex:
        text = &id.product;
        break;
    case kSerialIndex:
        text = &id.serial;
        break;
    default:
        return {};
    }
    // Text is taken byte for byte as code points; the descriptor holds at
    // most 126 characters.
    const size_t count = text->size() < 126 ? text->size() : 126;
    std::vector<uint8_t> out{static_cast<uint8_t>(2 + 2 * count), 3};
    for (size_t i = 0; i < count; ++i)
        Put16(out, static_cast<uint8_t>((*text)[i]));
    return out;
}

std::string DeviceNode(int bus, int address)
{
    char node[32];
    std::snprintf(node, sizeof node, "bus/usb/%03d/%03d", bus, address);
    return node;
}

std::string SysfsRecord(const UsbIdentity& id, const std::string& sysPath, int bus, int address)
{
    const std::string node = DeviceNode(bus, address);
    const unsigned minor = static_cast<unsigned>((bus - 1) * 128 + address - 1);
    std::vector<uint8_t> descriptors = DeviceDescriptor(id);
    const std::vector<uint8_t> config = ConfigurationDescriptor(id);
    descriptors.insert(descriptors.end(), config.begin(), config.end());

    std::string r;
    r += "P: " + sysPath + "\n";
    r += "N: " + node + "\n";
    r += "E: SUBSYSTEM=usb\n";
    r += "E: DEVTYPE=usb_device\n";
    r += "E: DRIVER=usb\n";
    r += "E: DEVNAME=/dev/" + node + "\n";
    r += "E: BUSNUM=" + Format("%03u", static_cast<unsigned>(bus)) + "\n";
    r += "E: DEVNUM=" + Format("%03u", static_cast<unsigned>(address)) + "\n";
    r += "E: MAJOR=189\n";
    r += "E: MINOR=" + Format("%u", minor) + "\n";
    r += "E: PRODUCT=" + Format("%x", id.vendorId) + "/" + Format("%x", id.productId) + "/1\n";
    r += "E: ID_VENDOR_ID=" + Format("%04x", id.vendorId) + "\n";
    r += "E: ID_MODEL_ID=" + Format("%04x", id.productId) + "\n";
    r += "A: busnum=" + Format("%u", static_cast<unsigned>(bus)) + "\\n\n";
    r += "A: devnum=" + Format("%u", static_cast<unsigned>(address)) + "\\n\n";
    r += "A: speed=480\\n\n";
    r += "A: bConfigurationValue=1\\n\n";
    r += "A: bNumConfigurations=1\\n\n";
    r += "A: bNumInterfaces= 1\\n\n";
    r += "A: bDeviceClass=" + Format("%02x", descriptors[4]) + "\\n\n";
    r += "A: idVendor=" + Format("%04x", id.vendorId) + "\\n\n";
    r += "A: idProduct=" + Format("%04x", id.productId) + "\\n\n";
    r += "A: bcdDevice=0001\\n\n";
    r += "A: manufacturer=" + OneLine(id.manufacturer) + "\\n\n";
    r += "A: product=" + OneLine(id.product) + "\\n\n";
    r += "A: serial=" + OneLine(id.serial) + "\\n\n";
    r += "A: dev=189:" + Format("%u", minor) + "\\n\n";
    r += "H: descriptors=" + Hex(descriptors) + "\n";
    return r;
}

} // namespace qksim
