// SPDX-License-Identifier: MIT
// preview_dump: pulls live preview frames from the first camera and writes
// each one as a BMP file.
//
//   preview_dump [COUNT [DIRECTORY]]    COUNT frames (10) into DIRECTORY (.)
//
// A host pulls frames at its own pace: each PTPLoadPreviewFrame reads one
// frame out of the camera; GetPreviewFrame lends the newest picture, a whole
// BMP file in memory, until FreePointer gives it back.

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include <qkcam/DevicePTP/DevicePTP.h>
#include <qkcam/usb/UsbLib_libusb.h>

namespace {

uint32_t Le32(const unsigned char* at)
{
    return at[0] | at[1] << 8 | at[2] << 16 | static_cast<uint32_t>(at[3]) << 24;
}

// Product strings and serial numbers are ASCII on the cameras we know.
std::string Narrow(const std::wstring& text)
{
    std::string out;
    for (wchar_t c : text)
        out.push_back(c > 0 && c < 128 ? static_cast<char>(c) : '?');
    return out;
}

bool WriteFile(const std::string& path, const void* bytes, size_t size)
{
    FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        return false;
    const bool written = std::fwrite(bytes, 1, size, file) == size;
    return std::fclose(file) == 0 && written;
}

} // namespace

int main(int argc, char** argv)
{
    const int count = argc > 1 ? std::atoi(argv[1]) : 10;
    const std::string directory = argc > 2 ? argv[2] : ".";
    if (count <= 0 || argc > 3) {
        std::cerr << "usage: preview_dump [COUNT [DIRECTORY]]" << std::endl;
        return 2;
    }

    std::shared_ptr<UsbLib> usb = UsbLib_libusb::build(UsbLib::EmptyNotify);
    std::set<std::wstring> paths = usb->GetAllConnectedDevicePaths();
    if (paths.empty()) {
        std::cerr << "camera not found" << std::endl;
        return 1;
    }
    std::shared_ptr<DevicePTP> camera = DevicePTP::build(usb, *paths.begin());
    if (camera->Init() != QK_OK) {
        std::cerr << "can't open the camera" << std::endl;
        return 1;
    }
    camera->QKMLoadSerialNumber();
    std::cout << "camera " << Narrow(camera->GetCameraName()) << ", serial "
              << Narrow(camera->GetSerialNumber()) << std::endl;

    const auto start = std::chrono::steady_clock::now();
    int written = 0;
    for (int i = 0; i < count; ++i) {
        if (camera->PTPLoadPreviewFrame() != QK_OK) {
            std::cerr << "frame " << i << ": load failed (see the log)" << std::endl;
            continue;
        }
        void* picture = nullptr;
        int size = 0;
        if (camera->GetPreviewFrame(&picture, &size) != QK_OK) {
            std::cerr << "frame " << i << ": no picture" << std::endl;
            continue;
        }
        char name[32];
        std::snprintf(name, sizeof(name), "preview_%03d.bmp", i);
        const std::string path = directory + "/" + name;
        const unsigned char* header = static_cast<const unsigned char*>(picture);
        const bool ok = WriteFile(path, picture, static_cast<size_t>(size));
        if (ok) {
            std::cout << path << ": " << Le32(header + 18) << "x" << Le32(header + 22) << ", " << size
                      << " bytes" << std::endl;
            ++written;
        } else {
            std::cerr << path << ": " << std::strerror(errno) << std::endl;
        }
        // The picture goes back whatever happened to the file.
        camera->FreePointer(picture);
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::cout << written << " of " << count << " frames in " << seconds << " s" << std::endl;
    return written == count ? 0 : 1;
}
