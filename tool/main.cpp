// SPDX-License-Identifier: MIT
// qkcam-list: one line per attached camera, its serial number and USB
// product string.

#include <iostream>

#include "DevicePTP/DevicePTP.h"
#include "usb/UsbLib_libusb.h"

int main(int, char**)
{
    std::shared_ptr<UsbLib> usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
    auto* libusb = static_cast<UsbLib_libusb*>(usb.get());
    std::set<std::wstring> paths = usb->GetAllConnectedDevicePaths();
    if (paths.empty()) {
        std::cerr << "camera not found" << std::endl;
        return -1;
    }
    for (const std::wstring& path : paths) {
        std::shared_ptr<DevicePTP> camera = DevicePTP::build(usb, path);
        if (camera->Init() != QK_OK) {
            // Standard output stays the same; what the user can fix goes to stderr.
            const std::string advice = libusb->OpenProblem(path);
            if (!advice.empty())
                std::cerr << "qkcam-list: camera " << wstrToStr(path) << ": " << advice << std::endl;
        }
        // A camera that could not be opened has nothing to be read from; its
        // line still shows that it is there.
        camera->QKMLoadSerialNumber();
        std::wcout << camera->GetSerialNumber() << L" ; " << camera->GetCameraName() << std::endl;
        // A character the locale can't write fails the stream; the next
        // camera still gets its line.
        if (!std::wcout) {
            std::wcout.clear();
            std::wcout << std::endl;
        }
    }
    return 0;
}
