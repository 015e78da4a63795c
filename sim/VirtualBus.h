// SPDX-License-Identifier: MIT
#pragma once
// The virtual camera: PTP cameras presented to the real, unmodified
// libusb-1.0 through umockdev's mock sysfs and usbfs device nodes.
//
// A process that uses it must run with umockdev's preload library from its
// start (EnsurePreload re-executes the program with it), and the bus must
// exist before the first libusb_init of the process that enumerates. Cameras
// may come and go at any time after: libusb hears of them by uevent.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace qksim {

class CameraSettings;
// Camera files and capture.
class CameraCard;
class CameraShutter;
class CameraMemory;
// Lens control.
class CameraLens;
// Live preview.
class CameraPreview;

// A command container as the camera received it on bulk OUT.
struct PtpCommand {
    uint32_t length = 0;
    uint16_t type = 0;
    uint16_t code = 0;
    uint32_t transId = 0;
    std::vector<uint32_t> params;
    int64_t arrivalNs = 0; // steady clock, when the container reached the camera
};

// What the camera answers to one command.
struct PtpReply {
    bool hasData = false;                 // send a data container before the response
    std::vector<uint8_t> data;            // its payload
    uint16_t responseCode = 0x2001;       // PTP_RC_OK
    std::vector<uint32_t> responseParams; // 0 to 5 words
    // Camera files: a transfer that breaks off. When >= 0, only this many
    // bytes of the data container (header included) go out, and no response.
    int64_t breakDataAfter = -1;
};

using OperationHandler = std::function<PtpReply(const PtpCommand&)>;

struct CameraSetup {
    std::string model = "SX160";
    std::string serial = "QKS0001";
    std::string product;        // empty: "QK Virtual Camera <model>"
    uint16_t vendorId = 0x04A9;
    uint16_t productId = 0x3041;
    int busNumber = 1;
    int address = 0;            // 0: the next free address on the bus
};

// What crossed the bus, for tests that assert on the wire.
struct UsbTraffic {
    std::vector<uint32_t> inRequests;  // buffer length of each bulk IN transfer asked for
    std::vector<uint32_t> outLengths;  // length of each bulk OUT transfer
    int clearHalts = 0;                // CLEAR_HALT requests, either endpoint
};

class VirtualCamera {
public:
    virtual ~VirtualCamera() = default;

    virtual const CameraSetup& Setup() const = 0;
    virtual int BusNumber() const = 0;
    virtual int Address() const = 0;
    // The engine's path for this camera: "vendor:product:bus:address" in decimal.
    virtual std::wstring Path() const = 0;

    // Answers for operation codes; replaces the built-in answer. For the vendor
    // operation 0x9999 the handler of its first parameter (the sub-command) wins.
    // Handlers run on the bus's worker thread, which serves every device: they
    // must not block. An empty handler gives the built-in answer back.
    virtual void SetOperationHandler(uint16_t code, OperationHandler handler) = 0;
    virtual void SetVendorHandler(uint32_t subCommand, OperationHandler handler) = 0;

    virtual std::vector<PtpCommand> ReceivedCommands() const = 0;
    virtual UsbTraffic Traffic() const = 0;
    virtual void ClearRecords() = 0;

    // Faults.
    virtual void StallNext(uint8_t endpoint, int count) = 0;   // 0x81 or 0x02
    virtual void TimeOutNext(uint8_t endpoint, int count) = 0; // transfers never complete
    virtual void GeneralErrorNext(int count, bool insteadOfData = false) = 0;
    // Bytes sent on bulk IN as they are, cut into 512-byte packets, the last
    // one short (a zero-length packet after a multiple of 512).
    virtual void QueueRawIn(const std::vector<uint8_t>& bytes) = 0;
    // Packets sent on bulk IN exactly as given; an empty one is a zero-length packet.
    virtual void QueueRawPackets(const std::vector<std::vector<uint8_t>>& packets) = 0;
    // The next reply containers are cut into packets of these sizes, in turn.
    // Each size serves one packet, then 512 again; a 0 puts a zero-length
    // packet into the stream there.
    virtual void SetPacketSizes(const std::vector<uint32_t>& sizes) = 0;
    virtual void FailClaim(bool fail) = 0;                     // claim answers busy
    // No device from now on: open handles fail with LIBUSB_ERROR_NO_DEVICE
    // and the camera leaves the bus, as when its cable is pulled.
    virtual void Unplug() = 0;
    virtual bool Plugged() const = 0;
    // The next `count` commands are recorded but get no answer, so that bytes
    // queued with QueueRawIn/QueueRawPackets stand in for the reply.
    virtual void SilenceNext(int count) = 0;

    // Settings: property cases, mode, version, events, battery, flags, zoom
    // (sim/CameraSettings.h).
    virtual CameraSettings& Settings() = 0;

    // Camera files and capture: the card (sim/CameraCard.h), the shutter with
    // remote capture and video (sim/CameraShutter.h), the camera's RAM as the
    // memory read shows it (sim/CameraMemory.h).
    virtual CameraCard& Card() = 0;
    virtual CameraShutter& Shutter() = 0;
    virtual CameraMemory& Memory() = 0;

    // Lens control: the zoom motor and the manual focus (sim/CameraLens.h).
    virtual CameraLens& Lens() = 0;

    // Live preview: the settings record and the frames (sim/CameraPreview.h).
    virtual CameraPreview& Preview() = 0;
};

class VirtualBus {
public:
    // umockdev's preload tracks at most this many emulated device files in
    // the program, and aborts it past that: one per opened camera.
    static constexpr int maxCameras = 50;

    // Re-executes the program with umockdev's preload library when it is not
    // loaded yet; returns false only if that could not be done.
    // Once the library is there, it makes the bus, so that its testbed exists
    // before any libusb_init of the process.
    static bool EnsurePreload(int argc, char** argv);

    // The process's one bus; made on first use.
    static VirtualBus& Instance();

    virtual ~VirtualBus() = default;
    // Null if the bus number is not 1..255 or the address is taken or none is free.
    virtual std::shared_ptr<VirtualCamera> AddCamera(const CameraSetup& setup) = 0;
    // A USB device that is no camera, to show that enumeration skips it.
    virtual void AddOtherDevice(uint16_t vendorId, uint16_t productId,
                                const std::string& product) = 0;
    virtual void Remove(const std::shared_ptr<VirtualCamera>& camera) = 0;
    virtual void RemoveAll() = 0;

    // The testbed's directory, the UMOCKDEV_DIR of processes that use the bus.
    virtual std::string RootDir() const = 0;
};

} // namespace qksim
