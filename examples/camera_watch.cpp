// SPDX-License-Identifier: MIT
// camera_watch: waits for cameras, opens each one that arrives and prints its
// line (serial " ; " USB product), and says when one leaves.
//
//   camera_watch [SECONDS]    watch for SECONDS, or until interrupted
//
// The transport's polling thread only says that something changed; the main
// thread asks what, and does the slow work of opening cameras.

#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include <qkcam/DevicePTP/DevicePTP.h>
#include <qkcam/usb/UsbLib_libusb.h>

namespace {

volatile sig_atomic_t interrupted = 0;

void OnSignal(int) { interrupted = 1; }

class ChangeFlag : public IUsbLib_Notify {
public:
    // Runs on the polling thread with the transport's lock held: just note it.
    void OnUsbEvent() override
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            changed = true;
        }
        condition.notify_one();
    }

    // True if a change came before `until`. Short waits, so that an
    // interrupt is seen soon.
    bool WaitUntil(std::chrono::steady_clock::time_point until)
    {
        const auto slice = std::chrono::milliseconds(200);
        std::unique_lock<std::mutex> lock(mutex);
        condition.wait_for(lock, std::min<std::chrono::steady_clock::duration>(
                                     slice, until - std::chrono::steady_clock::now()),
                           [this] { return changed; });
        const bool was = changed;
        changed = false;
        return was;
    }

private:
    std::mutex mutex;
    std::condition_variable condition;
    bool changed = false;
};

struct Attached {
    std::shared_ptr<DevicePTP> camera;
    std::wstring line;
};

// A whole number of seconds, at most a day.
bool ParseSeconds(const char* text, long* seconds)
{
    char* end = nullptr;
    *seconds = std::strtol(text, &end, 10);
    return end != text && *end == '\0' && *seconds > 0 && *seconds <= 86400;
}

void PrintLine(const std::wstring& text)
{
    std::wcout << text << std::endl;
    // A character the locale can't write fails the stream; later lines still come.
    if (!std::wcout) {
        std::wcout.clear();
        std::wcout << std::endl;
    }
}

// Brings `attached` in line with the bus: opens the newcomers, forgets the leavers.
void Update(const std::shared_ptr<UsbLib>& usb, std::map<std::wstring, Attached>& attached)
{
    const std::set<std::wstring> paths = usb->GetAllConnectedDevicePaths();
    for (auto it = attached.begin(); it != attached.end();) {
        if (paths.count(it->first)) {
            ++it;
            continue;
        }
        PrintLine(L"left: " + it->second.line);
        it = attached.erase(it); // closes the device
    }
    for (const std::wstring& path : paths) {
        if (attached.count(path))
            continue;
        Attached entry;
        entry.camera = DevicePTP::build(usb, path);
        // A camera that can't be opened or read still gets its line, to show it is there.
        if (entry.camera->Init() == QK_OK)
            entry.camera->QKMLoadSerialNumber();
        entry.line = entry.camera->GetSerialNumber() + L" ; " + entry.camera->GetCameraName();
        PrintLine(entry.line);
        attached.emplace(path, std::move(entry));
    }
}

} // namespace

int main(int argc, char** argv)
{
    long seconds = 0;
    if (argc > 2 || (argc == 2 && !ParseSeconds(argv[1], &seconds))) {
        std::cerr << "Usage: camera_watch [SECONDS]" << std::endl;
        return 2;
    }
    auto deadline = std::chrono::steady_clock::time_point::max();
    if (seconds > 0)
        deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);

    auto changes = std::make_shared<ChangeFlag>();
    std::shared_ptr<UsbLib> usb = UsbLib_libusb::build(changes);
    std::map<std::wstring, Attached> attached;
    // Cameras already there cause no notification: look once at the start.
    Update(usb, attached);
    while (!interrupted && std::chrono::steady_clock::now() < deadline) {
        if (changes->WaitUntil(deadline))
            Update(usb, attached);
    }
    attached.clear();
    return 0;
}
