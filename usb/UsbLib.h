#pragma once
// The transport seen by the camera object: enumeration, open and close, and
// whole-buffer bulk reads and writes.

#include <memory>
#include <set>
#include <string>

#include "../log/Log.h"
#include "DataLen.h"

// Implemented by a host that wants to hear when cameras come or go; it is
// told only that something changed, and asks GetAllConnectedDevicePaths what.
// OnUsbEvent runs on the transport's polling thread with its lock held: it
// must return soon and must never destroy the transport.
class IUsbLib_Notify {
public:
    virtual void OnUsbEvent() = 0;
    virtual ~IUsbLib_Notify() = default;
};

class UsbLib : public LoggerClient {
public:
    // Nobody listens.
    static std::weak_ptr<IUsbLib_Notify> EmptyNotify;

    explicit UsbLib(std::weak_ptr<IUsbLib_Notify> notify);
    UsbLib(const UsbLib&) = delete;
    UsbLib& operator=(const UsbLib&) = delete;

    // Paths of all attached cameras, "vendor:product:bus:address" in decimal.
    virtual std::set<std::wstring> GetAllConnectedDevicePaths() = 0;
    // A new opaque handle, or null.
    virtual void* OpenDevice(std::wstring path) = 0;
    virtual void CloseDevice(void* handle) = 0;
    // The USB product string.
    virtual std::wstring GetDeviceName(void* handle) = 0;
    // Fills the whole buffer, or fails.
    virtual bool Read(DataLen* buffer, void* handle) = 0;
    // Writes the whole buffer, or fails.
    virtual bool Write(DataLen* buffer, void* handle) = 0;
    // Drops what is left of the packet the last read took bytes from, so the
    // next read starts where a packet does, as every container does: how the
    // camera object finds its step again after a transfer broke off. A
    // transport that keeps no such rest has nothing to drop.
    virtual void DiscardResidue(void* handle);
    ~UsbLib() override = default;

    void SendOnUsbEvent();

protected:
    bool notifyEnabled;
    std::weak_ptr<IUsbLib_Notify> notifyTarget;
};

// Character-for-character conversions, no character-set decoding.
std::wstring strToWstr(std::string text);
std::string wstrToStr(std::wstring text);
