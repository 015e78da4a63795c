// SPDX-License-Identifier: MIT
#pragma once
// A receiver of device-change notifications that records each call and what
// the transport listed at that moment, and the fixture that hands it out.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "tests/common/VirtualCameraTest.h"
#include "usb/UsbLib_libusb.h"

namespace notifytest {

using Paths = std::set<std::wstring>;

// Outlives the receiver, so a test can still look after releasing it.
struct Calls {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<Paths> seen; // one entry per OnUsbEvent
    bool receiverGone = false;
    bool calledAfterGone = false;

    size_t Count()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.size();
    }
    // Waits up to `limit` for at least `count` calls.
    bool WaitFor(size_t count, std::chrono::milliseconds limit)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [&] { return seen.size() >= count; });
    }
    Paths Last()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return seen.empty() ? Paths() : seen.back();
    }
};

class Receiver : public IUsbLib_Notify {
public:
    explicit Receiver(std::shared_ptr<Calls> calls) : calls(std::move(calls)) {}
    ~Receiver() override
    {
        std::lock_guard<std::mutex> lock(calls->mutex);
        calls->receiverGone = true;
    }

    // Asks the transport what changed, as a host does.
    void OnUsbEvent() override
    {
        UsbLib* usb = transport.load();
        Paths paths = usb ? usb->GetAllConnectedDevicePaths() : Paths();
        if (duringCall)
            duringCall();
        {
            std::lock_guard<std::mutex> lock(calls->mutex);
            if (calls->receiverGone)
                calls->calledAfterGone = true;
            calls->seen.push_back(std::move(paths));
        }
        calls->changed.notify_all();
    }

    std::atomic<UsbLib*> transport{nullptr};
    std::function<void()> duringCall; // set before the transport is built

private:
    std::shared_ptr<Calls> calls;
};

class NotifyTest : public qktest::VirtualCameraTest {
protected:
    // The fixture's transport, with a live receiver.
    std::shared_ptr<UsbLib> Watch(const std::shared_ptr<Receiver>& receiver)
    {
        usb = UsbLib_libusb::build(receiver);
        receiver->transport = usb.get();
        return usb;
    }

    static constexpr std::chrono::milliseconds period{UsbLib_libusb::notifyPeriod};
    // Long enough for one poll to happen for sure, short of two periods.
    static constexpr std::chrono::milliseconds overOnePeriod{UsbLib_libusb::notifyPeriod * 13 / 10};
    // A plug is seen at the next poll: within one period, plus the bus's
    // uevent and the enumeration.
    static constexpr std::chrono::milliseconds eventLimit{UsbLib_libusb::notifyPeriod * 9 / 5};
};

} // namespace notifytest
