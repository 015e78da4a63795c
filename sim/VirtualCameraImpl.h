// SPDX-License-Identifier: MIT
#pragma once
// A virtual camera: its PTP responder behind a virtual USB device.

#include "sim/CameraSettings.h"
// Camera files and capture.
#include "sim/CameraCard.h"
#include "sim/CameraMemory.h"
#include "sim/CameraShutter.h"
// Lens control.
#include "sim/CameraLens.h"
// Live preview.
#include "sim/CameraPreview.h"
#include "sim/PtpResponder.h"
#include "sim/UsbfsDevice.h"
#include "sim/VirtualBus.h"

#include <functional>
#include <memory>

namespace qksim {

class VirtualCameraImpl : public VirtualCamera {
public:
    // `setup` as resolved by the bus: product and address filled in.
    explicit VirtualCameraImpl(const CameraSetup& setup);

    const std::shared_ptr<UsbfsDevice>& Device() const { return device; }
    PtpResponder& Responder() { return *responder; }
    // Takes the device off the bus after an unplug; set by the bus.
    void SetUnplugHook(std::function<void()> hook) { unplugHook = std::move(hook); }

    const CameraSetup& Setup() const override { return setup; }
    int BusNumber() const override { return setup.busNumber; }
    int Address() const override { return setup.address; }
    std::wstring Path() const override;

    void SetOperationHandler(uint16_t code, OperationHandler handler) override;
    void SetVendorHandler(uint32_t subCommand, OperationHandler handler) override;

    std::vector<PtpCommand> ReceivedCommands() const override;
    UsbTraffic Traffic() const override;
    void ClearRecords() override;

    void StallNext(uint8_t endpoint, int count) override;
    void TimeOutNext(uint8_t endpoint, int count) override;
    void GeneralErrorNext(int count, bool insteadOfData) override;
    void QueueRawIn(const std::vector<uint8_t>& bytes) override;
    void QueueRawPackets(const std::vector<std::vector<uint8_t>>& packets) override;
    void SetPacketSizes(const std::vector<uint32_t>& sizes) override;
    void FailClaim(bool fail) override;
    void Unplug() override;
    bool Plugged() const override;

    void SilenceNext(int count) override;

    // Settings: property cases, mode, version, events, battery, flags, zoom.
    CameraSettings& Settings() override { return *settings; }

    // Camera files and capture.
    CameraCard& Card() override { return *card; }
    CameraShutter& Shutter() override { return *shutter; }
    CameraMemory& Memory() override { return *memory; }

    // Lens control.
    CameraLens& Lens() override { return *lens; }

    // Live preview.
    CameraPreview& Preview() override { return *preview; }

private:
    const CameraSetup setup;
    std::shared_ptr<PtpResponder> responder;
    std::shared_ptr<CameraSettings> settings;
    // Camera files and capture.
    std::shared_ptr<CameraCard> card;
    std::shared_ptr<CameraShutter> shutter;
    std::shared_ptr<CameraMemory> memory;
    // Lens control.
    std::shared_ptr<CameraLens> lens;
    // Live preview.
    std::shared_ptr<CameraPreview> preview;
    std::shared_ptr<UsbfsDevice> device;
    std::function<void()> unplugHook;
};

// The product string of a camera whose setup names none.
std::string DefaultProduct(const std::string& model);

} // namespace qksim
