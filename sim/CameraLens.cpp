// SPDX-License-Identifier: MIT
#include "sim/CameraLens.h"

#include <algorithm>
#include <cstdlib>

#include "models/CameraConfig.h"
#include "sim/CameraSettings.h"
#include "sim/PtpContainer.h"
#include "sim/PtpReplies.h"
#include "sim/PtpResponder.h"

namespace qksim {

namespace {

constexpr int32_t pastLastEntry = -1;

// The entry of `row` nearest to `target`, the higher one on a tie.
int32_t NearestEntry(const std::vector<int32_t>& row, int32_t target)
{
    auto above = std::lower_bound(row.begin(), row.end(), target);
    if (above == row.end())
        return row.back();
    if (above == row.begin())
        return *above;
    const int64_t down = static_cast<int64_t>(target) - *(above - 1);
    const int64_t up = static_cast<int64_t>(*above) - target;
    return down < up ? *(above - 1) : *above;
}

} // namespace

CameraLens::CameraLens(const std::string& model, const std::string& product,
                       std::shared_ptr<CameraSettings> settings_)
    : settings(std::move(settings_))
{
    CameraConfig record;
    if (FindModelRecord(model, product, &record)) {
        maxZoom = record.maxZoom;
        focusTable = std::move(record.focusTable);
    }
    // Switched on, the lens rests focused at the far end of its range.
    const int32_t zoom = std::min(std::max(settings->ZoomPosition(), 0), maxZoom);
    if (!focusTable.empty() && static_cast<size_t>(zoom) < focusTable.size() &&
        !focusTable[static_cast<size_t>(zoom)].empty())
        focus = focusTable[static_cast<size_t>(zoom)].back();
}

void CameraLens::SetZoomTimePerPosition(std::chrono::milliseconds time)
{
    std::lock_guard<std::mutex> lock(mutex);
    perPosition = time;
}

int32_t CameraLens::ZoomNow_(Clock::time_point now)
{
    if (!moving)
        return settings->ZoomPosition();
    const int64_t distance = std::llabs(static_cast<int64_t>(to) - from);
    const int64_t step = perPosition.count() > 0 ? perPosition.count() : 1;
    const int64_t elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - started).count();
    const int64_t travelled = perPosition.count() > 0 ? elapsed / step : distance;
    if (travelled >= distance) {
        moving = false;
        finishPending = true;
        settings->SetZoomPosition(to);
        return to;
    }
    return static_cast<int32_t>(to > from ? from + travelled : from - travelled);
}

bool CameraLens::StartZoom(int32_t target)
{
    if (target < 0 || target > maxZoom)
        return false;
    std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    from = ZoomNow_(now);
    to = target;
    started = now;
    moving = true;
    finishPending = false;
    return true;
}

int32_t CameraLens::ZoomPosition()
{
    std::lock_guard<std::mutex> lock(mutex);
    return ZoomNow_(Clock::now());
}

bool CameraLens::ZoomMoving()
{
    std::lock_guard<std::mutex> lock(mutex);
    ZoomNow_(Clock::now());
    return moving;
}

uint32_t CameraLens::TakeZoomEvents()
{
    std::lock_guard<std::mutex> lock(mutex);
    ZoomNow_(Clock::now());
    if (!finishPending)
        return 0;
    finishPending = false;
    return ptp::EVENT_ZOOM_FINISHED;
}

int32_t CameraLens::MoveFocusTo(int32_t target)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (stuck)
        return focus;
    if (target == pastLastEntry || focusTable.empty()) {
        focus = target;
        return focus;
    }
    const int32_t zoom = std::min(std::max(ZoomNow_(Clock::now()), 0),
                                  static_cast<int32_t>(focusTable.size()) - 1);
    const std::vector<int32_t>& row = focusTable[static_cast<size_t>(zoom)];
    if (!row.empty())
        focus = NearestEntry(row, target);
    return focus;
}

int32_t CameraLens::FocusPosition() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return focus;
}

void CameraLens::SetFocusPosition(int32_t position)
{
    std::lock_guard<std::mutex> lock(mutex);
    focus = position;
}

void CameraLens::SetFocusStuck(bool stick)
{
    std::lock_guard<std::mutex> lock(mutex);
    stuck = stick;
}

std::vector<int32_t> CameraLens::FocusParams() const
{
    const int32_t manual = settings->ManualFocusOn() ? 1 : 0;
    return {manual, FocusPosition()};
}

void InstallLensOperations(PtpResponder& responder, const std::shared_ptr<CameraLens>& lens,
                           CameraSettings& settings)
{
    auto with = [&lens](auto body) { return ForPart(lens, body); };

    responder.SetBuiltinVendor(ptp::QKM_SetZoom, with([](CameraLens& l, const PtpCommand& c) {
        if (c.params.size() < 2 || !l.StartZoom(static_cast<int32_t>(c.params[1])))
            return RefusalReply(ptp::RC_InvalidParameter);
        return PtpReply{};
    }));
    responder.SetBuiltinVendor(ptp::QKM_GetZoom, with([](CameraLens& l, const PtpCommand&) {
        return WordsReply({l.ZoomPosition()});
    }));
    responder.SetBuiltinVendor(ptp::QKM_MoveFocusTo, with([](CameraLens& l, const PtpCommand& c) {
        if (c.params.size() < 2)
            return RefusalReply(ptp::RC_InvalidParameter);
        l.MoveFocusTo(static_cast<int32_t>(c.params[1]));
        return WordsReply(l.FocusParams());
    }));
    responder.SetBuiltinVendor(ptp::QKM_GetFocusParams, with([](CameraLens& l, const PtpCommand&) {
        return WordsReply(l.FocusParams());
    }));
    std::weak_ptr<CameraLens> weak = lens;
    settings.AddEventSource([weak]() {
        std::shared_ptr<CameraLens> l = weak.lock();
        return l ? l->TakeZoomEvents() : 0u;
    });
}

} // namespace qksim
