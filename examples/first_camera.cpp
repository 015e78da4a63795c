// SPDX-License-Identifier: MIT
// first_camera: the smallest host program; prints the engine's version and
// each attached camera's serial number and model.
#include <iostream>

#include <qkcam/DevicePTP/DevicePTP.h>
#include <qkcam/DevicePTP/Version.h>
#include <qkcam/usb/UsbLib_libusb.h>

int main()
{
    std::cout << "qkcam " << qkcamVersion() << std::endl;
    std::shared_ptr<UsbLib> usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
    for (const std::wstring& path : usb->GetAllConnectedDevicePaths()) {
        std::shared_ptr<DevicePTP> camera = DevicePTP::build(usb, path);
        if (camera->Init() == QK_OK && camera->QKMLoadSerialNumber() == QK_OK)
            std::wcout << camera->GetSerialNumber() << L" " << camera->GetCameraId() << std::endl;
    }
    return 0;
}
