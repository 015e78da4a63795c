// SPDX-License-Identifier: MIT
#include "sim/VirtualCameraImpl.h"

#include "sim/CameraOperations.h"
#include "models/CameraConfig.h"
#include "sim/CameraSettings.h"
#include "usb/UsbLib.h"

namespace qksim {

std::string DefaultProduct(const std::string& model)
{
    // The engine finds a camera's record by the record's name inside the
    // product string, so a model given by its short name (SX40 for SX40HS)
    // is shown under the record's name.
    CameraConfig record;
    if (FindModelRecord(model, "", &record))
        return "QK Virtual Camera " + wstrToStr(record.name);
    return "QK Virtual Camera " + model;
}

namespace {

UsbIdentity CameraIdentity(const CameraSetup& setup)
{
    UsbIdentity id;
    id.kind = UsbIdentity::Kind::Camera;
    id.vendorId = setup.vendorId;
    id.productId = setup.productId;
    id.manufacturer = "QK Virtual Devices";
    id.product = setup.product;
    id.serial = setup.serial;
    return id;
}

} // namespace

VirtualCameraImpl::VirtualCameraImpl(const CameraSetup& setup_)
    : setup(setup_), responder(std::make_shared<PtpResponder>()),
      settings(std::make_shared<CameraSettings>(setup_.model, setup_.product))
{
    InstallCameraOperations(*responder, setup);
    responder->SetTraceName(setup.serial);
    InstallSettingsOperations(*responder, settings);
    // Camera files and capture.
    card = std::make_shared<CameraCard>();
    shutter = std::make_shared<CameraShutter>(card);
    memory = std::make_shared<CameraMemory>(setup.model);
    InstallCardOperations(*responder, card);
    InstallShutterOperations(*responder, shutter, *settings);
    InstallMemoryOperations(*responder, memory);
    // Lens control.
    lens = std::make_shared<CameraLens>(setup.model, setup.product, settings);
    InstallLensOperations(*responder, lens, *settings);
    // Live preview: after the memory, whose read it extends with the frame at address 0.
    preview = std::make_shared<CameraPreview>();
    InstallPreviewOperations(*responder, preview, memory);
    std::shared_ptr<PtpResponder> answering = responder;
    device = std::make_shared<UsbfsDevice>(
        CameraIdentity(setup),
        [answering](const std::vector<uint8_t>& transfer) { return answering->Receive(transfer); });
}

std::wstring VirtualCameraImpl::Path() const
{
    return std::to_wstring(setup.vendorId) + L":" + std::to_wstring(setup.productId) + L":" +
           std::to_wstring(setup.busNumber) + L":" + std::to_wstring(setup.address);
}

void VirtualCameraImpl::SetOperationHandler(uint16_t code, OperationHandler handler)
{
    responder->SetOperationHandler(code, std::move(handler));
}

void VirtualCameraImpl::SetVendorHandler(uint32_t subCommand, OperationHandler handler)
{
    responder->SetVendorHandler(subCommand, std::move(handler));
}

std::vector<PtpCommand> VirtualCameraImpl::ReceivedCommands() const
{
    return responder->ReceivedCommands();
}

UsbTraffic VirtualCameraImpl::Traffic() const
{
    return device->Traffic();
}

void VirtualCameraImpl::ClearRecords()
{
    responder->ClearRecords();
    device->ClearTraffic();
}

void VirtualCameraImpl::StallNext(uint8_t endpoint, int count)
{
    device->StallNext(endpoint, count);
}

void VirtualCameraImpl::TimeOutNext(uint8_t endpoint, int count)
{
    device->TimeOutNext(endpoint, count);
}

void VirtualCameraImpl::GeneralErrorNext(int count, bool insteadOfData)
{
    responder->GeneralErrorNext(count, insteadOfData);
}

void VirtualCameraImpl::QueueRawIn(const std::vector<uint8_t>& bytes)
{
    device->QueueRawIn(bytes);
}

void VirtualCameraImpl::QueueRawPackets(const std::vector<std::vector<uint8_t>>& packets)
{
    device->QueueRawPackets(packets);
}

void VirtualCameraImpl::SetPacketSizes(const std::vector<uint32_t>& sizes)
{
    device->SetPacketSizes(sizes);
}

void VirtualCameraImpl::FailClaim(bool fail)
{
    device->FailClaim(fail);
}

void VirtualCameraImpl::Unplug()
{
    device->Unplug();
    if (unplugHook)
        unplugHook();
}

bool VirtualCameraImpl::Plugged() const
{
    return device->Plugged();
}

void VirtualCameraImpl::SilenceNext(int count)
{
    responder->SilenceNext(count);
}

} // namespace qksim
