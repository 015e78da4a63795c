// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The transport seen by the camera object: enumeration, open and close, and
/// whole-buffer bulk reads and writes.

#include <memory>
#include <set>
#include <string>

#include "../log/Log.h"
#include "DataLen.h"

/// Implemented by a host that wants to hear when cameras come or go; it is
/// told only that something changed, and asks GetAllConnectedDevicePaths what.
class IUsbLib_Notify {
public:
    /// Something changed on the bus. Runs on the transport's polling thread
    /// with its lock held: it must return soon and must never destroy the transport.
    virtual void OnUsbEvent() = 0;
    virtual ~IUsbLib_Notify() = default;
};

/// The transport: one per process is enough, shared by every camera
/// object (through std::shared_ptr). Enumeration, open and close may come
/// from any thread; reads and writes on one handle from one thread at a
/// time (each DevicePTP keeps to that), on different handles at once.
class UsbLib : public LoggerClient {
public:
    /// The listener to pass when nobody listens.
    static std::weak_ptr<IUsbLib_Notify> EmptyNotify;

    /// Device changes go to `notify` while it lives.
    explicit UsbLib(std::weak_ptr<IUsbLib_Notify> notify);
    UsbLib(const UsbLib&) = delete;
    UsbLib& operator=(const UsbLib&) = delete;

    /// Paths of all attached cameras, "vendor:product:bus:address" in decimal.
    virtual std::set<std::wstring> GetAllConnectedDevicePaths() = 0;
    /// Opens the camera at `path` and claims its interface: a new opaque
    /// handle, to be given back with CloseDevice, or null (logged).
    virtual void* OpenDevice(std::wstring path) = 0;
    /// Releases and frees a handle of OpenDevice; null does nothing.
    virtual void CloseDevice(void* handle) = 0;
    /// The USB product string of an open camera; empty for null.
    virtual std::wstring GetDeviceName(void* handle) = 0;
    /// Fills the whole buffer, which the caller owns, or fails (logged).
    virtual bool Read(DataLen* buffer, void* handle) = 0;
    /// Writes the whole buffer, or fails (logged).
    virtual bool Write(DataLen* buffer, void* handle) = 0;
    /// Drops what is left of the packet the last read took bytes from, so the
    /// next read starts where a packet does, as every container does: how the
    /// camera object finds its step again after a transfer broke off. A
    /// transport that keeps no such rest has nothing to drop.
    virtual void DiscardResidue(void* handle);
    ~UsbLib() override = default;

    /// Tells the listener, if there is one and it still lives, that
    /// something changed. Called by the transport's polling thread.
    void SendOnUsbEvent();

protected:
    /// @cond INTERNAL
    bool notifyEnabled;
    std::weak_ptr<IUsbLib_Notify> notifyTarget;
    /// @endcond
};

/// Widens character by character, no character-set decoding.
std::wstring strToWstr(std::string text);
/// Narrows character by character, no character-set decoding.
std::string wstrToStr(std::wstring text);
