// SPDX-License-Identifier: MIT
#include "DevicePTP/DevicePTP.h"

#include "DevicePTP/PtpCodes.h"

namespace {
// Lets build reach the protected constructor through std::make_shared.
struct BuiltDevicePTP : DevicePTP {
    BuiltDevicePTP(std::shared_ptr<UsbLib> usb, std::wstring path)
        : DevicePTP(std::move(usb), std::move(path))
    {
    }
};
} // namespace

std::shared_ptr<DevicePTP> DevicePTP::build(std::shared_ptr<UsbLib> usbLib, std::wstring devicePath)
{
    return std::make_shared<BuiltDevicePTP>(std::move(usbLib), std::move(devicePath));
}

DevicePTP::DevicePTP(std::shared_ptr<UsbLib> usb, std::wstring path)
    : usbLib(std::move(usb)), devicePath(std::move(path))
{
}

DevicePTP::~DevicePTP()
{
    if (deviceHandle)
        usbLib->CloseDevice(deviceHandle);
    FreePreviewFrames();
    // Direct-transfer pictures the host never removed are the object's own.
    for (auto& file : direct.directFiles)
        for (DataLen& chunk : file.second)
            FreePtpTransactionGetBuffer(chunk);
    QK_LOG_DEB("DevicePTP deleted");
    // Functions left in registeredPointers are dropped uncalled: memory a
    // caller never gave back is not ours to release.
}

QKResult DevicePTP::Init()
{
    // A second Init keeps the open handle: opening again would claim the
    // interface twice and lose the first handle.
    if (!deviceHandle) {
        deviceHandle = usbLib->OpenDevice(devicePath);
        if (!deviceHandle)
            return QK_ERROR;
    }
    deviceName = usbLib->GetDeviceName(deviceHandle);
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    if (!findCameraConfig(&cameraConfig, deviceName)) {
        QK_LOG_ERR("camera config not found: %S", deviceName.c_str());
        return QK_ERROR;
    }
    return QK_OK;
}

QKResult DevicePTP::QKMLoadSerialNumber()
{
    DataLen reply;
    if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(PTP_QKM_GetSerialNumber), TRANSACTION_GETDATA,
                        &reply, nullptr, nullptr)) {
        QK_LOG_ERR("PTP_QKM_GetSerialNumber failed");
        return QK_ERROR;
    }
    // One character every two bytes; a zero byte is a character like any other.
    const unsigned char* bytes = static_cast<const unsigned char*>(reply.data);
    std::string text;
    for (unsigned int i = 0; i < reply.len; i += 2)
        text.push_back(static_cast<char>(bytes[i]));
    serialNumber = strToWstr(text);
    FreePtpTransactionGetBuffer(reply);
    return QK_OK;
}

std::wstring DevicePTP::GetSerialNumber() { return serialNumber; }
std::wstring DevicePTP::GetCameraName() { return deviceName; }
std::wstring DevicePTP::GetCameraId()
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    return cameraConfig.name;
}

bool DevicePTP::HasProperty_(QKProp property)
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    return cameraConfig.properties.count(property) != 0;
}

int DevicePTP::MaxZoom_()
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    return static_cast<int>(cameraConfig.maxZoom);
}

void DevicePTP::RegisterPointer(void* pointer, std::function<void(void*)> release)
{
    std::lock_guard<std::mutex> lock(registeredPointersMutex);
    registeredPointers[pointer] = std::move(release);
}

void DevicePTP::FreePointer(void* pointer)
{
    std::function<void(void*)> release;
    {
        std::lock_guard<std::mutex> lock(registeredPointersMutex);
        auto entry = registeredPointers.find(pointer);
        if (entry == registeredPointers.end()) {
            QK_LOG_ERR("FreePointer: unknown pointer");
            return;
        }
        release = std::move(entry->second);
        registeredPointers.erase(entry);
    }
    // Released outside the lock: a release function may take locks of its own.
    if (release)
        release(pointer);
}

void DevicePTP::PostprocessPreview(int, int, unsigned char*, int) {}
void DevicePTP::OnNewPreviewFrame() {}
bool DevicePTP::IsVoltageLogging() { return false; }
void DevicePTP::OnZoomChanged() { QK_LOG_DEB("OnZoomChanged event"); }
void DevicePTP::OnPropertyChanged(int property) { QK_LOG_DEB("OnPropertyChanged event: %d", property); }
QKResult DevicePTP::GuardCameraState() { return QK_OK; }
QKResult DevicePTP::GuardOpenSession() { return QK_OK; }
QKResult DevicePTP::GuardAll() { return QK_OK; }
QKResult DevicePTP::DoSetProperty(QKProp property) { return PTPSetProperty(property); }
void DevicePTP::OnPropertyListChanged() { QK_LOG_DEB("OnPropertyListChanged event"); }
void DevicePTP::OnShootCompleted(QKFileInfo) { QK_LOG_DEB("OnShootCompleted event"); }
void DevicePTP::TemporaryStopPreview(bool) {}
QKResult DevicePTP::SetPreShootProperty() { return QK_OK; }
bool DevicePTP::IsMemLogging() { return memLogging; }
void DevicePTP::OnFocusChanged() { QK_LOG_DEB("OnFocusChanged event"); }
