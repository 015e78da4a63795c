// SPDX-License-Identifier: MIT
#pragma once
// The lens of a virtual camera: a zoom motor that needs time for each
// position and reports its arrival through the event word, and a manual
// focus that lands on the positions the model's focus table lists.
//
// Handlers on the bus thread and tests on their own threads share it, so
// every member is behind one lock. Time is read from the clock when the
// camera is asked; nothing here ever sleeps.

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace qksim {

class CameraSettings;
class PtpResponder;

class CameraLens {
public:
    using Clock = std::chrono::steady_clock;

    // A real lens needs some 20 ms a position; the default keeps tests fast.
    static constexpr std::chrono::milliseconds defaultZoomTimePerPosition{1};

    // The resting zoom position is the one in `settings`, so that a change
    // made there stands for the zoom ring turned by hand.
    CameraLens(const std::string& model, const std::string& product,
               std::shared_ptr<CameraSettings> settings);

    int32_t MaxZoom() const { return maxZoom; }
    void SetZoomTimePerPosition(std::chrono::milliseconds perPosition);
    // Starts the motor towards `target`, from wherever the lens is now. An
    // arrival of an earlier move not yet reported is forgotten. False (and
    // nothing moves) outside 0..MaxZoom.
    bool StartZoom(int32_t target);
    // Where the lens is now, also while it moves.
    int32_t ZoomPosition();
    bool ZoomMoving();
    // The event bits of the zoom: the finish of the last move, reported once.
    uint32_t TakeZoomEvents();

    // Moves the focus to the table entry of the current zoom nearest to
    // `target` (the higher one on a tie; -1 is the position past the last
    // entry) and returns where it stopped. A lens made to stick stays put.
    int32_t MoveFocusTo(int32_t target);
    int32_t FocusPosition() const;
    // The focus ring turned by hand.
    void SetFocusPosition(int32_t position);
    void SetFocusStuck(bool stuck);
    // The focus table of the model; empty on models without manual focus.
    const std::vector<std::vector<int32_t>>& FocusTable() const { return focusTable; }

    // The two words of the focus state: manual focus on (1) or off, and the position.
    std::vector<int32_t> FocusParams() const;

private:
    // Brings the motor up to now; the caller holds `mutex`.
    int32_t ZoomNow_(Clock::time_point now);

    const std::shared_ptr<CameraSettings> settings;
    int32_t maxZoom = 0;
    std::vector<std::vector<int32_t>> focusTable;

    mutable std::mutex mutex;
    std::chrono::milliseconds perPosition = defaultZoomTimePerPosition;
    bool moving = false;
    int32_t from = 0, to = 0;
    Clock::time_point started;
    bool finishPending = false;
    int32_t focus = 0;
    bool stuck = false;
};

// PTP_QKM_SetZoom, PTP_QKM_GetZoom, PTP_QKM_MoveFocusTo, PTP_QKM_GetFocusParams,
// and the zoom's finish bit in the event word.
void InstallLensOperations(PtpResponder& responder, const std::shared_ptr<CameraLens>& lens,
                           CameraSettings& settings);

} // namespace qksim
