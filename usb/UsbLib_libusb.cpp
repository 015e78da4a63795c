// SPDX-License-Identifier: MIT
#include "usb/UsbLib_libusb.h"

#include <libusb.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>

#include "usb/BulkIn.h"

namespace {

constexpr unsigned char endpointIn = 0x81;
constexpr unsigned char endpointOut = 0x02;
constexpr unsigned int productBufferSize = 256;

// What OpenDevice hands out. The residue lives here, per opened device, so
// two cameras on one transport never see each other's bytes.
struct DeviceInfo {
    libusb_device_handle* handle = nullptr;
    std::wstring name;
    std::vector<unsigned char> readResidue;
};

// Frees a device list on every way out.
class DeviceList {
public:
    DeviceList() : list(nullptr), count(libusb_get_device_list(nullptr, &list)) {}
    ~DeviceList()
    {
        if (count >= 0)
            libusb_free_device_list(list, 1);
    }
    DeviceList(const DeviceList&) = delete;
    DeviceList& operator=(const DeviceList&) = delete;

    libusb_device** list = nullptr; // before count: the constructor fills it
    ssize_t count;
};

int BulkIn(libusb_device_handle* handle, unsigned char* data, unsigned int len, int* received)
{
    *received = 0;
    return libusb_bulk_transfer(handle, endpointIn, data, static_cast<int>(len), received,
                                UsbLib_libusb::usbTimeout);
}

class LibusbIn : public BulkInEndpoint {
public:
    explicit LibusbIn(libusb_device_handle* device) : handle(device) {}
    int Transfer(unsigned char* data, unsigned int len, int* received) override
    {
        return BulkIn(handle, data, len, received);
    }
    void ClearHalt() override { libusb_clear_halt(handle, endpointIn); }

private:
    libusb_device_handle* handle;
};

} // namespace

std::shared_ptr<UsbLib> UsbLib_libusb::build(std::weak_ptr<IUsbLib_Notify> notify)
{
    return std::shared_ptr<UsbLib>(new UsbLib_libusb(notify));
}

UsbLib_libusb::UsbLib_libusb(std::weak_ptr<IUsbLib_Notify> notify) : UsbLib(notify)
{
    // Without a context libusb has nothing to enumerate with; every later
    // call checks this instead of handing libusb a context that isn't there.
    const int rc = libusb_init(nullptr);
    contextReady = rc == 0;
    if (!contextReady)
        QK_LOG_ERR("libusb_init error: %d", rc);
    if (notifyEnabled && contextReady) {
        // The cameras there at construction are taken before the constructor
        // returns, so one plugged in right after it is always told, however
        // late the thread gets going.
        std::set<std::wstring> known = GetAllConnectedDevicePaths();
        notifyThread = std::thread(&UsbLib_libusb::NotifyThread, this, std::move(known));
    }
}

UsbLib_libusb::~UsbLib_libusb()
{
    if (notifyEnabled) {
        // Set under the lock: a thread that is busy enumerating finds the flag
        // at its next wait, so the stop can't fall between two waits.
        {
            std::lock_guard<std::mutex> lock(notifyMutex);
            notifyStop = true;
        }
        notifyCondition.notify_all();
        if (notifyThread.joinable())
            notifyThread.join();
    }
    if (contextReady)
        libusb_exit(nullptr);
    QK_LOG_INF("UsbLib_libusb exit");
}

void UsbLib_libusb::NotifyThread(std::set<std::wstring> known)
{
    std::unique_lock<std::mutex> lock(notifyMutex);
    for (;;) {
        // The predicate keeps a spurious wake-up from looking like a stop.
        if (notifyCondition.wait_for(lock, std::chrono::milliseconds(notifyPeriod),
                                     [this] { return notifyStop; })) {
            QK_LOG_DEB("Notify loop exit");
            return;
        }
        std::set<std::wstring> current = GetAllConnectedDevicePaths();
        if (current != known)
            SendOnUsbEvent();
        known = std::move(current);
    }
}

std::wstring UsbLib_libusb::GetDeviceIdString(libusb_device* device)
{
    libusb_device_descriptor desc;
    int rc = libusb_get_device_descriptor(device, &desc);
    if (rc != 0) {
        QK_LOG_ERR("libusb_get_device_descriptor error: %d", rc);
        return std::wstring();
    }
    return std::to_wstring(desc.idVendor) + L":" + std::to_wstring(desc.idProduct) + L":" +
           std::to_wstring(libusb_get_bus_number(device)) + L":" +
           std::to_wstring(libusb_get_device_address(device));
}

std::set<std::wstring> UsbLib_libusb::GetAllConnectedDevicePaths()
{
    std::set<std::wstring> paths;
    if (!contextReady) {
        QK_LOG_ERR("GetAllConnectedDevicePaths: libusb is not initialised");
        return paths;
    }
    DeviceList devices;
    if (devices.count < 0) {
        QK_LOG_ERR("libusb_get_device_list error: %d", static_cast<int>(devices.count));
        return paths;
    }
    for (ssize_t i = 0; i < devices.count; ++i) {
        libusb_device_descriptor desc;
        int rc = libusb_get_device_descriptor(devices.list[i], &desc);
        if (rc != 0) {
            QK_LOG_ERR("libusb_get_device_descriptor error: %d", rc);
            break;
        }
        if (desc.idVendor == vendorId && desc.idProduct == productId)
            paths.insert(GetDeviceIdString(devices.list[i]));
    }
    return paths;
}

void* UsbLib_libusb::OpenDevice(std::wstring path)
{
    if (!contextReady) {
        QK_LOG_ERR("OpenDevice: libusb is not initialised");
        return nullptr;
    }
    DeviceList devices;
    if (devices.count < 0) {
        QK_LOG_ERR("libusb_get_device_list error: %d", static_cast<int>(devices.count));
        return nullptr;
    }
    libusb_device* found = nullptr;
    libusb_device_descriptor desc;
    for (ssize_t i = 0; i < devices.count && !found; ++i) {
        int rc = libusb_get_device_descriptor(devices.list[i], &desc);
        if (rc != 0) {
            QK_LOG_ERR("libusb_get_device_descriptor error: %d", rc);
            return nullptr;
        }
        if (GetDeviceIdString(devices.list[i]) == path)
            found = devices.list[i];
    }
    if (!found)
        return nullptr;

    libusb_device_handle* handle = nullptr;
    int rc = libusb_open(found, &handle);
    if (rc != 0) {
        QK_LOG_ERR("libusb_open error: %d", rc);
        NoteOpenProblem(path, rc);
        return nullptr;
    }
    rc = libusb_claim_interface(handle, 0);
    if (rc != 0) {
        QK_LOG_ERR("libusb_claim_interface error: %d", rc);
        NoteOpenProblem(path, rc);
        libusb_close(handle);
        return nullptr;
    }
    unsigned char product[productBufferSize] = {};
    rc = libusb_get_string_descriptor_ascii(handle, desc.iProduct, product, sizeof(product));
    if (rc < 0) {
        QK_LOG_ERR("libusb_get_string_descriptor_ascii error: %d", rc);
        libusb_release_interface(handle, 0);
        libusb_close(handle);
        return nullptr;
    }
    DeviceInfo* info = new (std::nothrow) DeviceInfo;
    if (!info) {
        QK_LOG_ERR("OpenDevice: out of memory");
        libusb_release_interface(handle, 0);
        libusb_close(handle);
        return nullptr;
    }
    NoteOpenProblem(path, 0);
    info->handle = handle;
    info->name = strToWstr(std::string(reinterpret_cast<char*>(product),
                                       static_cast<size_t>(std::min<int>(rc, sizeof(product)))));
    return info;
}

const char* UsbLib_libusb::AdviceFor(int libusbError)
{
    switch (libusbError) {
    case LIBUSB_ERROR_ACCESS:
        return "no permission to open the camera: install the udev rule 60-qkcam.rules "
               "(or join the plugdev group), then unplug and replug the camera";
    case LIBUSB_ERROR_BUSY:
        return "the camera is held by another program: close it (a photo importer or "
               "a file manager, for one) and try again";
    default:
        return nullptr;
    }
}

void UsbLib_libusb::NoteOpenProblem(const std::wstring& path, int libusbError)
{
    const char* advice = AdviceFor(libusbError);
    std::lock_guard<std::mutex> lock(openProblemsMutex);
    if (!advice) {
        openProblems.erase(path);
        return;
    }
    QK_LOG_ERR("OpenDevice %s: %s", wstrToStr(path).c_str(), advice);
    openProblems[path] = advice;
}

std::string UsbLib_libusb::OpenProblem(const std::wstring& path)
{
    std::lock_guard<std::mutex> lock(openProblemsMutex);
    auto it = openProblems.find(path);
    return it == openProblems.end() ? std::string() : it->second;
}

void UsbLib_libusb::CloseDevice(void* handle)
{
    DeviceInfo* info = static_cast<DeviceInfo*>(handle);
    if (!info)
        return;
    libusb_release_interface(info->handle, 0);
    libusb_close(info->handle);
    delete info;
}

std::wstring UsbLib_libusb::GetDeviceName(void* handle)
{
    const DeviceInfo* info = static_cast<const DeviceInfo*>(handle);
    return info ? info->name : std::wstring();
}

bool UsbLib_libusb::Read(DataLen* buffer, void* handle)
{
    DeviceInfo* info = static_cast<DeviceInfo*>(handle);
    if (!info || !buffer || (!buffer->data && buffer->len > 0)) {
        QK_LOG_ERR("Read: no device or no buffer");
        return false;
    }
    LibusbIn endpoint(info->handle);
    return bulkin::ReadWhole(endpoint, info->readResidue, static_cast<unsigned char*>(buffer->data), buffer->len,
                             MaxRetryCount);
}

bool UsbLib_libusb::Write(DataLen* buffer, void* handle)
{
    DeviceInfo* info = static_cast<DeviceInfo*>(handle);
    if (!info || !buffer || (!buffer->data && buffer->len > 0)) {
        QK_LOG_ERR("Write: no device or no buffer");
        return false;
    }
    unsigned char* data = static_cast<unsigned char*>(buffer->data);
    unsigned int remaining = buffer->len;
    int attempts = 0;
    int rc = 0;
    do {
        int sent = 0;
        rc = libusb_bulk_transfer(info->handle, endpointOut, data, static_cast<int>(remaining),
                                  &sent, usbTimeout);
        if (rc == LIBUSB_ERROR_PIPE)
            libusb_clear_halt(info->handle, endpointOut);
        sent = std::max(0, std::min(sent, static_cast<int>(remaining)));
        data += sent;
        remaining -= static_cast<unsigned int>(sent);
        ++attempts;
    } while (rc == LIBUSB_ERROR_PIPE && attempts < MaxRetryCount && remaining > 0);
    if (rc != 0) {
        QK_LOG_ERR("Read failed: %d %s", rc, "");
        return false;
    }
    return true;
}

void UsbLib_libusb::DiscardResidue(void* handle)
{
    if (DeviceInfo* info = static_cast<DeviceInfo*>(handle))
        info->readResidue.clear();
}
