// SPDX-License-Identifier: MIT
#include "sim/VirtualBus.h"

#include "sim/UsbDescriptors.h"
#include "sim/UsbfsDevice.h"
#include "sim/VirtualCameraImpl.h"

#include <umockdev.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>

namespace qksim {

namespace {

constexpr int kRootHubAddress = 1;
constexpr int kMaxAddress = 127;

// One device in the testbed and the handler serving its node.
struct Node {
    std::shared_ptr<UsbfsDevice> device;
    std::shared_ptr<VirtualCameraImpl> camera; // null for devices that are no camera
    UMockdevIoctlBase* handler = nullptr;
    std::string sysPath; // "/sys/devices/..."
    std::string devPath; // "/dev/bus/usb/BBB/DDD"
    int bus = 0;
    int address = 0;
};

// The testbed's sysfs files are written and removed with every device; on a
// disk file system each removal can cost milliseconds, so unless the user
// chose a temporary directory, the testbed goes to memory.
UMockdevTestbed* NewTestbed()
{
    const char* chosen = std::getenv("TMPDIR");
    if ((chosen && *chosen) || access("/dev/shm", W_OK | X_OK) != 0)
        return umockdev_testbed_new();
    setenv("TMPDIR", "/dev/shm", 1);
    UMockdevTestbed* testbed = umockdev_testbed_new();
    unsetenv("TMPDIR");
    return testbed;
}

class VirtualBusImpl : public VirtualBus {
public:
    // Bus 1 is always there, so a host sees a bus even without cameras.
    VirtualBusImpl() : testbed(NewTestbed()) { EnsureHub(1); }

    ~VirtualBusImpl() override
    {
        RemoveAll();
        for (auto& [bus, hub] : hubs)
            Drop(hub);
        g_object_unref(testbed);
    }

    std::shared_ptr<VirtualCamera> AddCamera(const CameraSetup& setup) override;
    void AddOtherDevice(uint16_t vendorId, uint16_t productId, const std::string& product) override;
    void Remove(const std::shared_ptr<VirtualCamera>& camera) override;
    void RemoveAll() override;
    std::string RootDir() const override;

private:
    std::string HubPath(int bus) const { return "/devices/platform/qk-virtual-hcd." + std::to_string(bus) + "/usb" + std::to_string(bus); }
    bool EnsureHub(int bus);
    int FreeAddress(int bus) const;
    bool Plug(Node& node, const UsbIdentity& id, const std::string& sysPath);
    void Drop(Node& node);
    void Unplugged(const VirtualCameraImpl* camera);

    std::mutex mutex;
    UMockdevTestbed* testbed;
    std::map<int, Node> hubs;
    std::vector<Node> nodes;
    int otherCount = 0;
};

bool VirtualBusImpl::Plug(Node& node, const UsbIdentity& id, const std::string& sysPath)
{
    GError* error = nullptr;
    const std::string record = SysfsRecord(id, sysPath, node.bus, node.address);
    if (!umockdev_testbed_add_from_string(testbed, record.c_str(), &error)) {
        std::fprintf(stderr, "qkcam virtual bus: cannot add %s: %s\n", sysPath.c_str(), error->message);
        g_clear_error(&error);
        return false;
    }
    node.sysPath = "/sys" + sysPath;
    node.devPath = "/dev/" + DeviceNode(node.bus, node.address);
    node.handler = node.device->MakeHandler();
    if (!umockdev_testbed_attach_ioctl(testbed, node.devPath.c_str(), node.handler, &error)) {
        std::fprintf(stderr, "qkcam virtual bus: cannot serve %s: %s\n", node.devPath.c_str(), error->message);
        g_clear_error(&error);
        umockdev_testbed_remove_device(testbed, node.sysPath.c_str());
        g_object_unref(node.handler);
        node.handler = nullptr;
        return false;
    }
    return true;
}

void VirtualBusImpl::Drop(Node& node)
{
    if (!node.handler)
        return;
    node.device->Unplug();
    umockdev_testbed_uevent(testbed, node.sysPath.c_str(), "remove");
    GError* error = nullptr;
    if (!umockdev_testbed_detach_ioctl(testbed, node.devPath.c_str(), &error))
        g_clear_error(&error);
    umockdev_testbed_remove_device(testbed, node.sysPath.c_str());
    // Clients that still hold the node open keep the handler, and with it the
    // device, which answers them ENODEV.
    g_object_unref(node.handler);
    node.handler = nullptr;
}

bool VirtualBusImpl::EnsureHub(int bus)
{
    if (hubs.count(bus))
        return true;
    Node hub;
    hub.bus = bus;
    hub.address = kRootHubAddress;
    UsbIdentity id;
    id.kind = UsbIdentity::Kind::RootHub;
    id.vendorId = 0x1d6b;
    id.productId = 0x0002;
    id.manufacturer = "QK Virtual Devices";
    id.product = "QK Virtual Root Hub";
    id.serial = "qk-virtual-hcd." + std::to_string(bus);
    hub.device = std::make_shared<UsbfsDevice>(id, nullptr);
    if (!Plug(hub, id, HubPath(bus)))
        return false;
    hubs[bus] = hub;
    return true;
}

int VirtualBusImpl::FreeAddress(int bus) const
{
    std::set<int> used;
    for (const Node& node : nodes)
        if (node.bus == bus)
            used.insert(node.address);
    for (int address = kRootHubAddress + 1; address <= kMaxAddress; ++address)
        if (!used.count(address))
            return address;
    return 0;
}

std::shared_ptr<VirtualCamera> VirtualBusImpl::AddCamera(const CameraSetup& setup)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (setup.busNumber < 1 || setup.busNumber > 255 || !EnsureHub(setup.busNumber))
        return nullptr;
    CameraSetup resolved = setup;
    if (resolved.product.empty())
        resolved.product = DefaultProduct(setup.model);
    if (resolved.address == 0)
        resolved.address = FreeAddress(setup.busNumber);
    for (const Node& node : nodes)
        if (node.bus == resolved.busNumber && node.address == resolved.address)
            resolved.address = 0;
    if (resolved.address <= kRootHubAddress || resolved.address > kMaxAddress) {
        std::fprintf(stderr, "qkcam virtual bus: no address for camera %s on bus %d\n",
                     setup.serial.c_str(), setup.busNumber);
        return nullptr;
    }

    Node node;
    node.bus = resolved.busNumber;
    node.address = resolved.address;
    node.camera = std::make_shared<VirtualCameraImpl>(resolved);
    node.device = node.camera->Device();
    // Ports are numbered after addresses, which keeps sysfs names unique.
    const std::string sysPath =
        HubPath(node.bus) + "/" + std::to_string(node.bus) + "-" + std::to_string(node.address - 1);
    if (!Plug(node, node.device->Identity(), sysPath))
        return nullptr;
    const VirtualCameraImpl* key = node.camera.get();
    node.camera->SetUnplugHook([this, key] { Unplugged(key); });
    nodes.push_back(node);
    return node.camera;
}

void VirtualBusImpl::AddOtherDevice(uint16_t vendorId, uint16_t productId, const std::string& product)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!EnsureHub(1))
        return;
    Node node;
    node.bus = 1;
    node.address = FreeAddress(1);
    if (node.address == 0)
        return;
    UsbIdentity id;
    id.kind = UsbIdentity::Kind::Other;
    id.vendorId = vendorId;
    id.productId = productId;
    id.manufacturer = "QK Virtual Devices";
    id.product = product;
    char serial[16];
    std::snprintf(serial, sizeof serial, "QKO%04d", ++otherCount);
    id.serial = serial;
    node.device = std::make_shared<UsbfsDevice>(id, nullptr);
    if (Plug(node, id, HubPath(1) + "/1-" + std::to_string(node.address - 1)))
        nodes.push_back(node);
}

void VirtualBusImpl::Unplugged(const VirtualCameraImpl* camera)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (Node& node : nodes)
        if (node.camera.get() == camera)
            Drop(node);
}

void VirtualBusImpl::Remove(const std::shared_ptr<VirtualCamera>& camera)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = nodes.begin(); it != nodes.end(); ++it) {
        if (it->camera == camera) {
            Drop(*it);
            it->camera->SetUnplugHook(nullptr);
            nodes.erase(it);
            return;
        }
    }
}

void VirtualBusImpl::RemoveAll()
{
    std::lock_guard<std::mutex> lock(mutex);
    for (Node& node : nodes) {
        Drop(node);
        if (node.camera)
            node.camera->SetUnplugHook(nullptr);
    }
    nodes.clear();
    for (auto it = hubs.begin(); it != hubs.end();) {
        if (it->first == 1) {
            ++it;
            continue;
        }
        Drop(it->second);
        it = hubs.erase(it);
    }
}

std::string VirtualBusImpl::RootDir() const
{
    gchar* dir = umockdev_testbed_get_root_dir(testbed);
    std::string out = dir ? dir : "";
    g_free(dir);
    return out;
}

} // namespace

VirtualBus& VirtualBus::Instance()
{
    static VirtualBusImpl bus;
    return bus;
}

} // namespace qksim
