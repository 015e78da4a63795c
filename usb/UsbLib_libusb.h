// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The transport on libusb-1.0.

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "UsbLib.h"

struct libusb_device;

/// The transport on libusb-1.0's default context: finds the cameras by
/// their USB ids, and while a listener is set, a polling thread tells it
/// when cameras come or go.
class UsbLib_libusb : public UsbLib {
public:
    static constexpr unsigned short vendorId = 0x04A9;  ///< USB vendor id of the cameras
    static constexpr unsigned short productId = 0x3041; ///< USB product id of the cameras in PTP mode
    static constexpr unsigned int usbTimeout = 5000;    ///< ms, every bulk transfer
    static constexpr int MaxRetryCount = 5;             ///< attempts of a write that stalls
    static constexpr unsigned int notifyPeriod = 1000;  ///< ms, the polling thread's wait

    /// The transport, with device changes going to `notify` (pass
    /// UsbLib::EmptyNotify when nobody listens). If libusb cannot start,
    /// the transport still exists, finds no camera and logs why.
    static std::shared_ptr<UsbLib> build(std::weak_ptr<IUsbLib_Notify> notify);
    /// Stops the polling thread; close the cameras first.
    ~UsbLib_libusb() override;

    std::set<std::wstring> GetAllConnectedDevicePaths() override;
    void* OpenDevice(std::wstring path) override;
    void CloseDevice(void* handle) override;
    std::wstring GetDeviceName(void* handle) override;
    bool Read(DataLen* buffer, void* handle) override;
    bool Write(DataLen* buffer, void* handle) override;
    void DiscardResidue(void* handle) override;

    /// Why the last OpenDevice of `path` failed, when the user can do
    /// something about it (permission, another program holding the camera):
    /// one line of advice; empty otherwise or after a successful open. Any thread.
    std::string OpenProblem(const std::wstring& path);
    /// The advice for a libusb error code, or null when there is none.
    static const char* AdviceFor(int libusbError);

protected:
    /// Use build.
    explicit UsbLib_libusb(std::weak_ptr<IUsbLib_Notify> notify);

private:
    /// @cond INTERNAL
    std::wstring GetDeviceIdString(libusb_device* device);
    // The thread's body; `known` is the set of cameras there at construction.
    void NotifyThread(std::set<std::wstring> known);

    bool contextReady = false; // libusb_init succeeded; set once in the constructor
    std::thread notifyThread;
    std::condition_variable notifyCondition;
    std::mutex notifyMutex;
    bool notifyStop = false; // guarded by notifyMutex

    void NoteOpenProblem(const std::wstring& path, int libusbError);
    std::map<std::wstring, std::string> openProblems; // guarded by openProblemsMutex
    std::mutex openProblemsMutex;
    /// @endcond
};
