// SPDX-License-Identifier: MIT
#include "sim/UsbfsDevice.h"

#include "sim/HandOver.h"

#include <linux/usbdevice_fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#ifndef USBDEVFS_GET_SPEED
#define USBDEVFS_GET_SPEED _IO('U', 31)
#endif

namespace qksim {

namespace {

constexpr uint32_t kCapabilities = USBDEVFS_CAP_ZERO_PACKET | USBDEVFS_CAP_BULK_CONTINUATION |
                                   USBDEVFS_CAP_NO_PACKET_SIZE_LIM |
                                   USBDEVFS_CAP_BULK_SCATTER_GATHER |
                                   USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
constexpr long kHighSpeed = 3;

// The argument's pointee, mapped into this process; null if unreadable.
UMockdevIoctlData* ResolveArg(UMockdevIoctlClient* client, size_t size)
{
    GError* error = nullptr;
    UMockdevIoctlData* data =
        umockdev_ioctl_data_resolve(umockdev_ioctl_client_get_arg(client), 0, size, &error);
    g_clear_error(&error);
    return data;
}

bool ReadWordArg(UMockdevIoctlClient* client, uint32_t& value)
{
    UMockdevIoctlData* data = ResolveArg(client, sizeof value);
    if (!data)
        return false;
    std::memcpy(&value, data->data, sizeof value);
    g_object_unref(data);
    return true;
}

} // namespace

UsbfsDevice::Urb::~Urb()
{
    if (buffer)
        g_object_unref(buffer);
    if (data)
        g_object_unref(data);
    if (client)
        g_object_unref(client);
}

UsbfsDevice::UsbfsDevice(UsbIdentity identity_, BulkOutHandler onBulkOut_)
    : identity(std::move(identity_)), onBulkOut(std::move(onBulkOut_))
{
}

UsbfsDevice::~UsbfsDevice()
{
    pendingIn.clear();
    parked.clear();
    for (auto& [client, state] : clients) {
        EndHeld(state);
        state.done.clear();
        g_object_unref(client);
    }
    if (worker)
        g_main_context_unref(worker);
}

void UsbfsDevice::Ok(UMockdevIoctlClient* client, long result)
{
    umockdev_ioctl_client_complete(client, result, 0);
}

void UsbfsDevice::Fail(UMockdevIoctlClient* client, int error)
{
    umockdev_ioctl_client_complete(client, -1, error);
}

UMockdevIoctlBase* UsbfsDevice::MakeHandler()
{
    UMockdevIoctlBase* handler = umockdev_ioctl_base_new();
    auto release = [](gpointer data, GClosure*) {
        TakeOver(data);
        delete static_cast<std::shared_ptr<UsbfsDevice>*>(data);
    };
    // The worker calls these, and drops them, once the node is served.
    auto* onIoctl = new std::shared_ptr<UsbfsDevice>(shared_from_this());
    auto* onConnected = new std::shared_ptr<UsbfsDevice>(shared_from_this());
    HandOver(onIoctl);
    HandOver(onConnected);
    g_signal_connect_data(handler, "handle-ioctl", G_CALLBACK(OnIoctlSignal), onIoctl, release,
                          GConnectFlags(0));
    g_signal_connect_data(handler, "client-connected", G_CALLBACK(OnConnectedSignal), onConnected,
                          release, GConnectFlags(0));
    return handler;
}

gboolean UsbfsDevice::OnIoctlSignal(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
{
    TakeOver(self);
    (*static_cast<std::shared_ptr<UsbfsDevice>*>(self))->HandleIoctl(client);
    return TRUE;
}

void UsbfsDevice::HandleIoctl(UMockdevIoctlClient* client)
{
    const unsigned long request = umockdev_ioctl_client_get_request(client);
    std::vector<uint8_t> outBytes;
    bool forward = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!worker)
            worker = g_main_context_ref_thread_default();
        DropClosedClients();
        if (clients.find(client) == clients.end()) {
            g_object_ref(client);
            clients[client];
        }
        if (unplugged) {
            EndAllPending(-ENODEV);
            if (request == USBDEVFS_REAPURBNDELAY || request == USBDEVFS_REAPURB)
                Reap(client);
            else
                Fail(client, ENODEV);
            return;
        }
        uint32_t word = 0;
        switch (request) {
        case USBDEVFS_GET_CAPABILITIES:
            if (UMockdevIoctlData* data = ResolveArg(client, sizeof kCapabilities)) {
                std::memcpy(data->data, &kCapabilities, sizeof kCapabilities);
                g_object_unref(data);
                Ok(client);
            } else {
                Fail(client, EFAULT);
            }
            break;
        case USBDEVFS_GET_SPEED:
            Ok(client, kHighSpeed);
            break;
        case USBDEVFS_CLAIMINTERFACE:
        case USBDEVFS_RELEASEINTERFACE:
            if (!ReadWordArg(client, word))
                Fail(client, EFAULT);
            else if (request == USBDEVFS_CLAIMINTERFACE)
                Claim(client, word);
            else
                Release(client, word);
            break;
        case USBDEVFS_DISCONNECT_CLAIM:
            // The interface number leads the struct.
            if (!ReadWordArg(client, word))
                Fail(client, EFAULT);
            else
                Claim(client, word);
            break;
        case USBDEVFS_GETDRIVER:
        case USBDEVFS_IOCTL:
            Fail(client, ENODATA);
            break;
        case USBDEVFS_CLEAR_HALT:
            if (!ReadWordArg(client, word)) {
                Fail(client, EFAULT);
            } else {
                halts.halted.erase(static_cast<uint8_t>(word));
                ++halts.clears;
                Ok(client);
            }
            break;
        case USBDEVFS_RESET:
            Ok(client);
            break;
        case USBDEVFS_SUBMITURB:
            forward = Submit(client, outBytes);
            break;
        case USBDEVFS_REAPURBNDELAY:
        case USBDEVFS_REAPURB:
            Reap(client);
            break;
        case USBDEVFS_DISCARDURB:
            Discard(client);
            break;
        default:
            Fail(client, ENOTTY);
            break;
        }
    }
    if (!forward || !onBulkOut)
        return;
    const Containers replies = onBulkOut(outBytes);
    std::lock_guard<std::mutex> lock(mutex);
    if (unplugged)
        return;
    for (const auto& container : replies)
        inQueue.QueueContainer(container);
    Deliver();
}

bool UsbfsDevice::Submit(UMockdevIoctlClient* client, std::vector<uint8_t>& outBytes)
{
    auto urb = std::make_shared<Urb>();
    urb->data = ResolveArg(client, sizeof(usbdevfs_urb));
    if (!urb->data) {
        Fail(client, EFAULT);
        return false;
    }
    urb->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
    const usbdevfs_urb* raw = urb->Raw();
    if (raw->buffer_length < 0) {
        Fail(client, EINVAL);
        return false;
    }
    urb->type = raw->type;
    urb->endpoint = raw->endpoint;
    urb->length = static_cast<uint32_t>(raw->buffer_length);
    if (urb->length > 0) {
        GError* error = nullptr;
        urb->buffer = umockdev_ioctl_data_resolve(urb->data, offsetof(usbdevfs_urb, buffer),
                                                  urb->length, &error);
        g_clear_error(&error);
        if (!urb->buffer) {
            Fail(client, EFAULT);
            return false;
        }
    }

    if (urb->type == USBDEVFS_URB_TYPE_CONTROL) {
        if (urb->length < 8) {
            Fail(client, EINVAL);
            return false;
        }
        Ok(client);
        urb->status = AnswerControl(identity, halts, urb->Bytes(), urb->Bytes() + 8, urb->length - 8,
                                    urb->filled);
        Finish(urb);
        return false;
    }
    if (urb->type == USBDEVFS_URB_TYPE_INTERRUPT) {
        // Nothing is ever reported on the interrupt endpoint.
        Ok(client);
        parked.push_back(urb);
        return false;
    }
    if (urb->type != USBDEVFS_URB_TYPE_BULK) {
        Fail(client, EINVAL);
        return false;
    }

    const bool in = (urb->endpoint & 0x80) != 0;
    (in ? traffic.inRequests : traffic.outLengths).push_back(urb->length);
    if (urb->endpoint != kBulkIn && urb->endpoint != kBulkOut) {
        Fail(client, ENOENT);
        return false;
    }
    Ok(client);
    Faults& fault = faults[urb->endpoint];
    if (fault.stalls > 0) {
        --fault.stalls;
        halts.halted.insert(urb->endpoint);
        urb->status = -EPIPE;
        Finish(urb);
        return false;
    }
    if (fault.timeOuts > 0) {
        --fault.timeOuts;
        urb->deaf = true;
        if (in)
            pendingIn.push_back(urb);
        else
            parked.push_back(urb);
        return false;
    }
    if (in) {
        pendingIn.push_back(urb);
        Deliver();
        return false;
    }
    outBytes.assign(urb->Bytes(), urb->Bytes() + urb->length);
    urb->filled = urb->length;
    Finish(urb);
    return true;
}

void UsbfsDevice::Deliver()
{
    for (;;) {
        auto next = std::find_if(pendingIn.begin(), pendingIn.end(),
                                 [](const UrbPtr& urb) { return !urb->deaf; });
        if (next == pendingIn.end())
            return;
        UrbPtr urb = *next;
        BulkInQueue::Transfer transfer;
        transfer.buffer = urb->Bytes();
        transfer.length = urb->length;
        transfer.filled = urb->filled;
        const bool finished = inQueue.Fill(transfer);
        urb->filled = transfer.filled;
        if (!finished)
            return;
        urb->status = transfer.status;
        pendingIn.erase(next);
        Finish(urb);
    }
}

void UsbfsDevice::Finish(const UrbPtr& urb)
{
    auto owner = clients.find(urb->client);
    if (owner == clients.end())
        return;
    owner->second.done.push_back(urb);
    if (owner->second.held == Held::Reap)
        GiveBack(owner->first, owner->second);
}

void UsbfsDevice::EndAllPending(int status)
{
    std::vector<UrbPtr> ending(pendingIn.begin(), pendingIn.end());
    ending.insert(ending.end(), parked.begin(), parked.end());
    pendingIn.clear();
    parked.clear();
    for (const UrbPtr& urb : ending) {
        urb->status = status;
        Finish(urb);
    }
}

void UsbfsDevice::GiveBack(UMockdevIoctlClient* client, Client& state)
{
    UrbPtr urb = state.done.front();
    state.done.pop_front();
    usbdevfs_urb* raw = urb->Raw();
    raw->status = urb->status;
    raw->actual_length = static_cast<int>(urb->filled);
    // The argument points at the client's URB pointer: make it point at this URB.
    UMockdevIoctlData* slot = ResolveArg(client, sizeof(void*));
    if (slot) {
        umockdev_ioctl_data_set_ptr(slot, 0, urb->data);
        g_object_unref(slot);
        Ok(client);
    } else {
        Fail(client, EFAULT);
    }
    EndHeld(state);
}

void UsbfsDevice::Reap(UMockdevIoctlClient* client)
{
    Client& state = clients[client];
    if (!state.done.empty()) {
        GiveBack(client, state);
        return;
    }
    if (unplugged) {
        Fail(client, ENODEV);
        return;
    }
    // Holding is only worth it while something of this client may still
    // finish; libusb's last reap after a completed transfer must not wait.
    auto ofClient = [client](const UrbPtr& urb) { return urb->client == client; };
    if (std::none_of(pendingIn.begin(), pendingIn.end(), ofClient) &&
        std::none_of(parked.begin(), parked.end(), ofClient)) {
        Fail(client, EAGAIN);
        return;
    }
    Hold(client, state, Held::Reap, kReapHoldMs);
}

void UsbfsDevice::Discard(UMockdevIoctlClient* client)
{
    // The argument is the URB's address in the client, not a pointer to follow.
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    gulong address = 0;
    std::memcpy(&address, arg->data, std::min(sizeof address, static_cast<size_t>(arg->data_len)));
    auto matches = [&](const UrbPtr& urb) { return urb->client == client && urb->data->client_addr == address; };
    UrbPtr urb;
    auto in = std::find_if(pendingIn.begin(), pendingIn.end(), matches);
    if (in != pendingIn.end()) {
        urb = *in;
        pendingIn.erase(in);
    } else {
        auto other = std::find_if(parked.begin(), parked.end(), matches);
        if (other != parked.end()) {
            urb = *other;
            parked.erase(other);
        }
    }
    if (!urb) {
        Fail(client, EINVAL);
        return;
    }
    Ok(client);
    urb->status = -ENOENT;
    Finish(urb);
}

bool UsbfsDevice::ClaimedElsewhere(UMockdevIoctlClient* client) const
{
    return std::any_of(clients.begin(), clients.end(), [client](const auto& entry) {
        return entry.first != client && entry.second.claimed;
    });
}

void UsbfsDevice::Claim(UMockdevIoctlClient* client, unsigned interfaceNumber)
{
    if (interfaceNumber != 0) {
        Fail(client, ENOENT);
        return;
    }
    if (failClaim) {
        Fail(client, EBUSY);
        return;
    }
    Client& state = clients[client];
    if (ClaimedElsewhere(client)) {
        Hold(client, state, Held::Claim, kClaimGraceMs);
        return;
    }
    state.claimed = true;
    Ok(client);
}

void UsbfsDevice::Release(UMockdevIoctlClient* client, unsigned interfaceNumber)
{
    if (interfaceNumber != 0) {
        Fail(client, ENOENT);
        return;
    }
    Client& state = clients[client];
    if (!state.claimed) {
        Fail(client, EINVAL);
        return;
    }
    state.claimed = false;
    Ok(client);
}

void UsbfsDevice::StallNext(uint8_t endpoint, int count)
{
    std::lock_guard<std::mutex> lock(mutex);
    faults[endpoint].stalls = std::max(count, 0);
}

void UsbfsDevice::TimeOutNext(uint8_t endpoint, int count)
{
    std::lock_guard<std::mutex> lock(mutex);
    faults[endpoint].timeOuts = std::max(count, 0);
}

void UsbfsDevice::QueueRawIn(const std::vector<uint8_t>& bytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    inQueue.QueueRaw(bytes);
    Wake();
}

void UsbfsDevice::QueueRawPackets(const std::vector<std::vector<uint8_t>>& packets)
{
    std::lock_guard<std::mutex> lock(mutex);
    inQueue.QueuePackets(packets);
    Wake();
}

void UsbfsDevice::SetPacketSizes(const std::vector<uint32_t>& sizes)
{
    std::lock_guard<std::mutex> lock(mutex);
    inQueue.SetPacketSizes(sizes);
}

void UsbfsDevice::FailClaim(bool fail)
{
    std::lock_guard<std::mutex> lock(mutex);
    failClaim = fail;
}

void UsbfsDevice::Unplug()
{
    std::lock_guard<std::mutex> lock(mutex);
    if (unplugged)
        return;
    unplugged = true;
    inQueue.Clear();
    Wake();
}

bool UsbfsDevice::Plugged() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return !unplugged;
}

UsbTraffic UsbfsDevice::Traffic() const
{
    std::lock_guard<std::mutex> lock(mutex);
    UsbTraffic out = traffic;
    out.clearHalts = halts.clears;
    return out;
}

void UsbfsDevice::ClearTraffic()
{
    std::lock_guard<std::mutex> lock(mutex);
    traffic = UsbTraffic{};
    halts.clears = 0;
}

size_t UsbfsDevice::ClientCount() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return clients.size();
}

} // namespace qksim
