// SPDX-License-Identifier: MIT
#pragma once
// One virtual USB device behind its usbfs node: answers the ioctls that
// libusb sends on /dev/bus/usb/BBB/DDD, moves URBs between the host and the
// device's function, and injects the faults of real buses.
//
// The ioctls arrive on umockdev's worker thread; faults and records are
// reached from other threads. Everything below is guarded by one mutex, and
// the function behind bulk OUT is called without it.

#include "sim/BulkInQueue.h"
#include "sim/UsbControl.h"
#include "sim/UsbDescriptors.h"
#include "sim/VirtualBus.h"

#include <umockdev.h>

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

struct usbdevfs_urb;

namespace qksim {

class UsbfsDevice : public std::enable_shared_from_this<UsbfsDevice> {
public:
    using Containers = std::vector<std::vector<uint8_t>>;
    // What the device's function answers to one bulk OUT transfer.
    using BulkOutHandler = std::function<Containers(const std::vector<uint8_t>&)>;

    // How long a reap that has nothing to return is held back, so that a
    // waiting libusb doesn't spin on a node that always polls ready.
    static constexpr unsigned kReapHoldMs = 5;
    // How long a claim of an interface that another file holds waits for that
    // file's close to arrive: umockdev reports closes asynchronously.
    static constexpr unsigned kClaimGraceMs = 100;

    UsbfsDevice(UsbIdentity identity, BulkOutHandler onBulkOut);
    ~UsbfsDevice();
    UsbfsDevice(const UsbfsDevice&) = delete;
    UsbfsDevice& operator=(const UsbfsDevice&) = delete;

    // A handler for the node, to attach to the testbed. The handler keeps
    // this object alive as long as umockdev keeps the handler.
    UMockdevIoctlBase* MakeHandler();

    const UsbIdentity& Identity() const { return identity; }

    void StallNext(uint8_t endpoint, int count);
    void TimeOutNext(uint8_t endpoint, int count);
    void QueueRawIn(const std::vector<uint8_t>& bytes);
    void QueueRawPackets(const std::vector<std::vector<uint8_t>>& packets);
    void SetPacketSizes(const std::vector<uint32_t>& sizes);
    void FailClaim(bool fail);
    // Pending transfers end with -ENODEV; every later request but a reap
    // fails with ENODEV.
    void Unplug();
    bool Plugged() const;

    UsbTraffic Traffic() const;
    void ClearTraffic();
    // Open file descriptors on the node.
    size_t ClientCount() const;

private:
    struct Urb {
        UMockdevIoctlClient* client = nullptr;
        UMockdevIoctlData* data = nullptr;   // the struct usbdevfs_urb
        UMockdevIoctlData* buffer = nullptr; // what its buffer points at
        uint8_t type = 0;
        uint8_t endpoint = 0;
        uint32_t length = 0;
        uint32_t filled = 0;
        int status = 0;
        bool deaf = false; // takes no data and never finishes on its own

        Urb() = default;
        Urb(const Urb&) = delete;
        Urb& operator=(const Urb&) = delete;
        ~Urb();
        usbdevfs_urb* Raw() const { return reinterpret_cast<usbdevfs_urb*>(data->data); }
        uint8_t* Bytes() const { return buffer ? buffer->data : nullptr; }
    };
    using UrbPtr = std::shared_ptr<Urb>;
    // A request answered later: a reap with nothing to return yet, a claim
    // that waits for another file to let go.
    enum class Held { None, Reap, Claim };
    struct Client {
        std::deque<UrbPtr> done; // finished, not reaped yet
        bool claimed = false;
        Held held = Held::None;
        unsigned heldSerial = 0;
        GSource* heldTimer = nullptr;
    };
    struct Faults {
        int stalls = 0;
        int timeOuts = 0;
    };

    static void Ok(UMockdevIoctlClient* client, long result = 0);
    static void Fail(UMockdevIoctlClient* client, int error);

    static gboolean OnIoctlSignal(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self);
    static void OnConnectedSignal(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self);

    void HandleIoctl(UMockdevIoctlClient* client);
    // Forgets clients whose file is closed, with their URBs and claim.
    void DropClosedClients();

    // The parts of HandleIoctl, called with the lock held; each completes
    // the request (a reap possibly later). Submit returns the bytes of a bulk
    // OUT transfer that went through, for the function.
    bool Submit(UMockdevIoctlClient* client, std::vector<uint8_t>& outBytes);
    void Reap(UMockdevIoctlClient* client);
    void Discard(UMockdevIoctlClient* client);
    void Claim(UMockdevIoctlClient* client, unsigned interfaceNumber);
    void Release(UMockdevIoctlClient* client, unsigned interfaceNumber);

    void Finish(const UrbPtr& urb);
    void Deliver();
    void GiveBack(UMockdevIoctlClient* client, Client& state);
    bool ClaimedElsewhere(UMockdevIoctlClient* client) const;
    void Hold(UMockdevIoctlClient* client, Client& state, Held kind, unsigned ms);
    void EndHeld(Client& state);
    void HeldTimerFired(UMockdevIoctlClient* client, unsigned serial);
    void EndAllPending(int status);
    // umockdev's objects are touched on its worker thread only: other
    // threads change state and wake the worker to act on it.
    void Wake();
    void Pump();

    const UsbIdentity identity;
    const BulkOutHandler onBulkOut;

    mutable std::mutex mutex;
    GMainContext* worker = nullptr;
    std::map<UMockdevIoctlClient*, Client> clients; // each holds a reference
    std::deque<UrbPtr> pendingIn;                  // bulk IN, oldest first
    std::vector<UrbPtr> parked;                    // never finish on their own
    BulkInQueue inQueue;
    std::map<uint8_t, Faults> faults;
    EndpointHalts halts;
    UsbTraffic traffic;
    bool failClaim = false;
    bool unplugged = false;
};

} // namespace qksim
