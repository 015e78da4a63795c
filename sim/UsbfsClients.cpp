// SPDX-License-Identifier: MIT
// The clients of a device node: requests answered later (held), files that
// close, and wake-ups of umockdev's worker from other threads.

#include "sim/UsbfsDevice.h"

#include "sim/HandOver.h"

#include <algorithm>
#include <cerrno>

namespace qksim {

namespace {

// Bodies of GSource callbacks: a timer knows its device weakly, so that
// destroying the timer never drops the last reference from inside the device.
struct HeldTimer {
    std::weak_ptr<UsbfsDevice> device;
    UMockdevIoctlClient* client;
    unsigned serial;
};

} // namespace

void UsbfsDevice::OnConnectedSignal(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self)
{
    // umockdev marks a client whose file was closed as no longer connected;
    // watching that lets its URBs and claim go at once. The change may be
    // noticed while completing a request, with the lock held: act on it from
    // the worker's loop.
    TakeOver(self);
    auto* device = new std::weak_ptr<UsbfsDevice>(*static_cast<std::shared_ptr<UsbfsDevice>*>(self));
    g_signal_connect_data(
        client, "notify::connected",
        G_CALLBACK(+[](UMockdevIoctlClient* watched, gpointer, gpointer data) {
            if (umockdev_ioctl_client_get_connected(watched))
                return;
            GSource* idle = g_idle_source_new();
            g_source_set_callback(
                idle,
                [](gpointer owner) -> gboolean {
                    if (auto device = static_cast<std::weak_ptr<UsbfsDevice>*>(owner)->lock()) {
                        std::lock_guard<std::mutex> lock(device->mutex);
                        device->DropClosedClients();
                    }
                    return G_SOURCE_REMOVE;
                },
                new std::weak_ptr<UsbfsDevice>(*static_cast<std::weak_ptr<UsbfsDevice>*>(data)),
                [](gpointer owner) { delete static_cast<std::weak_ptr<UsbfsDevice>*>(owner); });
            g_source_attach(idle, g_main_context_get_thread_default());
            g_source_unref(idle);
        }),
        device, [](gpointer data, GClosure*) { delete static_cast<std::weak_ptr<UsbfsDevice>*>(data); },
        GConnectFlags(0));
}

void UsbfsDevice::Hold(UMockdevIoctlClient* client, Client& state, Held kind, unsigned ms)
{
    state.held = kind;
    const unsigned serial = ++state.heldSerial;
    state.heldTimer = g_timeout_source_new(ms);
    auto* body = new HeldTimer{weak_from_this(), static_cast<UMockdevIoctlClient*>(g_object_ref(client)),
                               serial};
    g_source_set_callback(
        state.heldTimer,
        [](gpointer data) -> gboolean {
            auto* timer = static_cast<HeldTimer*>(data);
            if (auto device = timer->device.lock())
                device->HeldTimerFired(timer->client, timer->serial);
            return G_SOURCE_REMOVE;
        },
        body,
        [](gpointer data) {
            auto* timer = static_cast<HeldTimer*>(data);
            g_object_unref(timer->client);
            delete timer;
        });
    g_source_attach(state.heldTimer, g_main_context_get_thread_default());
}

void UsbfsDevice::HeldTimerFired(UMockdevIoctlClient* client, unsigned serial)
{
    std::lock_guard<std::mutex> lock(mutex);
    DropClosedClients();
    auto found = clients.find(client);
    if (found == clients.end())
        return;
    Client& state = found->second;
    if (state.held == Held::None || state.heldSerial != serial)
        return;
    if (state.held == Held::Claim) {
        if (unplugged) {
            Fail(client, ENODEV);
        } else if (ClaimedElsewhere(client)) {
            Fail(client, EBUSY);
        } else {
            state.claimed = true;
            Ok(client);
        }
    } else if (!state.done.empty()) {
        GiveBack(client, state);
        return;
    } else {
        Fail(client, unplugged ? ENODEV : EAGAIN);
    }
    EndHeld(state);
}

void UsbfsDevice::EndHeld(Client& state)
{
    state.held = Held::None;
    if (state.heldTimer) {
        g_source_destroy(state.heldTimer);
        g_source_unref(state.heldTimer);
        state.heldTimer = nullptr;
    }
}

void UsbfsDevice::DropClosedClients()
{
    bool dropped = false;
    for (auto found = clients.begin(); found != clients.end();) {
        UMockdevIoctlClient* client = found->first;
        if (umockdev_ioctl_client_get_connected(client)) {
            ++found;
            continue;
        }
        auto ofClient = [client](const UrbPtr& urb) { return urb->client == client; };
        pendingIn.erase(std::remove_if(pendingIn.begin(), pendingIn.end(), ofClient), pendingIn.end());
        parked.erase(std::remove_if(parked.begin(), parked.end(), ofClient), parked.end());
        EndHeld(found->second);
        found = clients.erase(found);
        g_object_unref(client);
        dropped = true;
    }
    if (!dropped)
        return;
    for (auto& [client, state] : clients) {
        if (state.held == Held::Claim && !ClaimedElsewhere(client)) {
            state.claimed = true;
            Ok(client);
            EndHeld(state);
        }
    }
}

void UsbfsDevice::Wake()
{
    if (!worker)
        return; // no client has spoken yet, so none waits
    GSource* idle = g_idle_source_new();
    auto* self = new std::shared_ptr<UsbfsDevice>(shared_from_this());
    g_source_set_callback(
        idle,
        [](gpointer data) -> gboolean {
            TakeOver(data);
            (*static_cast<std::shared_ptr<UsbfsDevice>*>(data))->Pump();
            return G_SOURCE_REMOVE;
        },
        self,
        [](gpointer data) {
            TakeOver(data);
            delete static_cast<std::shared_ptr<UsbfsDevice>*>(data);
        });
    HandOver(self);
    g_source_attach(idle, worker);
    g_source_unref(idle);
}

void UsbfsDevice::Pump()
{
    std::lock_guard<std::mutex> lock(mutex);
    DropClosedClients();
    if (unplugged)
        EndAllPending(-ENODEV);
    else
        Deliver();
    for (auto& [client, state] : clients) {
        if (state.held != Held::Reap)
            continue;
        if (!state.done.empty()) {
            GiveBack(client, state);
        } else if (unplugged) {
            Fail(client, ENODEV);
            EndHeld(state);
        }
    }
}

} // namespace qksim
