#pragma once
// The transport on libusb-1.0 (default context).

#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "UsbLib.h"

struct libusb_device;

class UsbLib_libusb : public UsbLib {
public:
    static constexpr unsigned short vendorId = 0x04A9;
    static constexpr unsigned short productId = 0x3041;
    static constexpr unsigned int usbTimeout = 5000; // ms, every bulk transfer
    static constexpr int MaxRetryCount = 5;
    static constexpr unsigned int notifyPeriod = 1000; // ms, the polling thread's wait

    static std::shared_ptr<UsbLib> build(std::weak_ptr<IUsbLib_Notify> notify);
    ~UsbLib_libusb() override;

    std::set<std::wstring> GetAllConnectedDevicePaths() override;
    void* OpenDevice(std::wstring path) override;
    void CloseDevice(void* handle) override;
    std::wstring GetDeviceName(void* handle) override;
    bool Read(DataLen* buffer, void* handle) override;
    bool Write(DataLen* buffer, void* handle) override;
    void DiscardResidue(void* handle) override;

    // Why the last OpenDevice of `path` failed, when the user can do
    // something about it (permission, another program holding the camera):
    // one line of advice; empty otherwise or after a successful open. Any thread.
    std::string OpenProblem(const std::wstring& path);
    // The advice for a libusb error code, or null when there is none.
    static const char* AdviceFor(int libusbError);

protected:
    explicit UsbLib_libusb(std::weak_ptr<IUsbLib_Notify> notify);

private:
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
};
