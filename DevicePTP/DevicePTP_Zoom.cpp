// SPDX-License-Identifier: MIT
// Zoom: the cached position, its announcement, and the chain that moves the
// lens and waits for the camera's finish event.

#include <algorithm>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"

namespace {

constexpr int64_t firstPollDelayMs = 100;
constexpr int64_t pollIntervalMs = 100;
// The lens settles a little after the camera reports the move done.
constexpr int64_t settleDelayMs = 250;
constexpr int manualFocusOff = 1;

} // namespace

QKResult DevicePTP::GetMaximumZoom(int* zoom)
{
    *zoom = MaxZoom_();
    return QK_OK;
}

QKResult DevicePTP::GetZoom(int* zoom)
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    *zoom = state.currentZoom;
    return QK_OK;
}

QKResult DevicePTP::UpdateZoom()
{
    int zoom = 0;
    QKResult result = PTPGetZoom(&zoom);
    if (result != QK_OK) {
        QK_LOG_ERR("Get zoom failed");
        return result;
    }
    bool changed = false;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        if (zoom != state.currentZoom) {
            state.currentZoom = zoom;
            changed = true;
            QK_LOG_INF("zoom changed from camera: %d", zoom);
        }
    }
    if (changed)
        SendZoomChanged();
    return QK_OK;
}

void DevicePTP::SendZoomChanged()
{
    bool announce = false;
    int zoom = 0;
    {
        // Compare and copy in one hold, so two threads announce a position once.
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        if (state.currentZoom != state.lastSentZoom) {
            state.lastSentZoom = state.currentZoom;
            zoom = state.currentZoom;
            announce = true;
        }
    }
    if (announce) {
        QK_LOG_INF("zoom changed: %d", zoom);
        OnZoomChanged();
    }
}

ContProc* DevicePTP::PTPSetZoom(int zoom)
{
    zoom = std::max(std::min(zoom, MaxZoom_()), 0);
    DevicePTP* device = this;
    return new ContProc([device, zoom](ContProc* self, int64_t* wait, QKResult* result, bool* more) {
        device->ZoomCommand_(self, zoom, wait, result, more);
    });
}

void DevicePTP::ZoomCommand_(ContProc* proc, int zoom, int64_t* wait, QKResult* result, bool* more)
{
    bool manualFocusForZoom = false;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        auto value = state.propertyValues.find(QKProp::ManualFocusMode);
        manualFocusForZoom = cameraConfig.properties.count(QKProp::ManualFocusMode) &&
                             value != state.propertyValues.end() && value->second == manualFocusOff;
    }
    if (manualFocusForZoom) {
        // Holds the focus while the lens moves; failure is logged by the call.
        QK_LOG_INF("Manual focus on zoom: on");
        PTPManualFocusEnable(true);
    }
    // A finish reported for an earlier move must not end this one.
    cameraEvents[ZOOM_FINISHED] = false;
    QK_LOG_DEB("Set zoom on camera: %d", zoom);
    if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(PTP_QKM_SetZoom, static_cast<unsigned int>(zoom)),
                        TRANSACTION_NODATA, nullptr, nullptr, nullptr)) {
        QK_LOG_ERR("PTP_QKM_SetZoom failed");
        *result = QK_ERROR;
        return;
    }
    const auto deadline = ChainDeadline();
    *wait = firstPollDelayMs;
    *more = true;
    DevicePTP* device = this;
    proc->step = [device, zoom, manualFocusForZoom, deadline](ContProc* self, int64_t* wait,
                                                              QKResult* result, bool* more) {
        device->ZoomAwaitFinish_(self, zoom, manualFocusForZoom, deadline, wait, result, more);
    };
}

void DevicePTP::ZoomAwaitFinish_(ContProc* proc, int zoom, bool manualFocusForZoom,
                                 std::chrono::steady_clock::time_point deadline, int64_t* wait,
                                 QKResult* result, bool* more)
{
    *result = PTPLoadEvents();
    if (*result != QK_OK) {
        QK_LOG_ERR("PTPLoadEvents() failed");
        return;
    }
    if (cameraEvents[ZOOM_FINISHED]) {
        QK_LOG_INF("zoom finished for: %d", zoom);
        *wait = settleDelayMs;
        *more = true;
        DevicePTP* device = this;
        proc->step = [device, zoom, manualFocusForZoom](ContProc*, int64_t*, QKResult* result, bool* more) {
            device->ZoomTakeOver_(zoom, manualFocusForZoom, result, more);
        };
        return;
    }
    // A camera that answers but never reports the finish would keep the
    // caller blocked for good; a real lens needs a few seconds at most.
    if (std::chrono::steady_clock::now() >= deadline) {
        QK_LOG_ERR("zoom to %d not finished within %lld ms", zoom,
                   static_cast<long long>(chainTimeLimitMs.load()));
        QK_LOG_ERR("PTPLoadEvents() failed");
        *result = QK_ERROR;
        return;
    }
    *wait = pollIntervalMs;
    *more = true;
}

void DevicePTP::ZoomTakeOver_(int zoom, bool manualFocusForZoom, QKResult* result, bool* more)
{
    {
        // The request, not the camera, says where the lens stands now.
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        state.currentZoom = zoom;
    }
    if (manualFocusForZoom) {
        QK_LOG_INF("Manual focus on zoom: off");
        PTPManualFocusEnable(false);
    }
    SendZoomChanged();
    *result = QK_OK;
    *more = false;
}
