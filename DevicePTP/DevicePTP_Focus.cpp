// SPDX-License-Identifier: MIT
// Manual focus: moving the lens to a position, following the camera's
// position, and stepping through the model's focus table.

#include <algorithm>
#include <climits>
#include <cstdlib>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"

namespace {

// Attempts of one FocusShift, each a step wider than the last.
constexpr int focusShiftAttempts = 9;
// The position past the last table entry.
constexpr int pastLastEntry = -1;

// Finds the first entry not less than `value`; true if it equals `value`.
bool BinSearch(const std::vector<int>& row, int& index, int value)
{
    const int n = static_cast<int>(row.size());
    if (n == 0 || row[0] > value) {
        index = 0;
        return false;
    }
    if (row[n - 1] < value) {
        index = n;
        return false;
    }
    int low = 0;
    int high = n;
    while (low < high) {
        const int mid = low + (high - low) / 2;
        if (row[mid] < value)
            low = mid + 1;
        else
            high = mid;
    }
    index = high;
    return row[high] == value;
}

} // namespace

QKResult DevicePTP::PTPManualFocusSet(int focus, int* reached)
{
    std::vector<int> words;
    // Without the position reached (a short reply) nothing can be taken over.
    if (!FetchWords(PTPmkParams(PTP_QKM_MoveFocusTo, static_cast<unsigned int>(focus)), 2, &words,
                    "PTP_QKM_MoveFocusTo")) {
        QK_LOG_ERR("PTP_QKM_MoveFocusTo failed");
        return QK_ERROR;
    }
    QK_LOG_DEB("PTP_QKM_MoveFocusTo res: %d %d", words[0], words[1]);
    if (reached)
        *reached = words[1];
    {
        // The camera, not the request, says where the lens stands.
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        state.currentFocus = words[1];
    }
    SendFocusChanged();
    return QK_OK;
}

QKResult DevicePTP::PTPManualFocusGetParams(int* first, int* position)
{
    std::vector<int> words;
    QKResult result = PTPQKMGet(PTP_QKM_GetFocusParams, 2, &words);
    if (result != QK_OK) {
        QK_LOG_ERR("PTP_QKM_GetFocusParams failed");
        return result;
    }
    *first = words[0];
    *position = words[1];
    return QK_OK;
}

QKResult DevicePTP::UpdateFocusPos()
{
    if (!HasProperty_(QKProp::ManualFocusMode))
        return QK_UNKNOWN_PROPERTY;
    int first = 0;
    int position = 0;
    QKResult result = PTPManualFocusGetParams(&first, &position);
    if (result != QK_OK) {
        QK_LOG_ERR("PTPManualFocusGetParams failed");
        return result;
    }
    bool changed = false;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        if (position != state.currentFocus) {
            state.currentFocus = position;
            changed = true;
            QK_LOG_INF("focus changed from camera: %d", position);
        }
    }
    if (changed)
        SendFocusChanged();
    return QK_OK;
}

QKResult DevicePTP::GetFocus(int* focus)
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    *focus = state.currentFocus;
    return QK_OK;
}

void DevicePTP::SendFocusChanged()
{
    bool announce = false;
    int focus = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        if (state.currentFocus != state.lastSentFocus) {
            state.lastSentFocus = state.currentFocus;
            focus = state.currentFocus;
            announce = true;
        }
    }
    if (announce) {
        QK_LOG_INF("focus changed: %d", focus);
        OnFocusChanged();
    }
}

int DevicePTP::GetFocusWithShift(int zoom, int focus, int shift)
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    const std::vector<std::vector<int>>& table = cameraConfig.focusTable;
    if (table.empty())
        return 0;
    zoom = std::min(std::max(zoom, 0), static_cast<int>(table.size()) - 1);
    if (focus == pastLastEntry && shift >= 0)
        return pastLastEntry;
    const std::vector<int>& row = table[static_cast<size_t>(zoom)];
    if (row.empty())
        return 0; // a malformed record; the generator never makes one
    const int n = static_cast<int>(row.size());
    int index = 0;
    if (focus == pastLastEntry) {
        // Past the last entry counts as one place beyond it.
        focus = row[static_cast<size_t>(n - 1)];
        shift += 1;
    }
    if (!BinSearch(row, index, focus)) {
        index = std::max(std::min(index, n - 1), 0);
        // Distances in 64 bits: positions span the whole int range.
        if (index > 0 && std::llabs(static_cast<long long>(focus) - row[static_cast<size_t>(index - 1)]) <
                             std::llabs(static_cast<long long>(focus) - row[static_cast<size_t>(index)]))
            --index;
    }
    // Widened in 64 bits so a huge shift cannot overflow.
    const long long shifted = static_cast<long long>(index) + shift;
    if (shifted >= n)
        return pastLastEntry;
    if (shifted < 0)
        return row[0];
    return row[static_cast<size_t>(shifted)];
}

QKResult DevicePTP::FocusShift(int shift)
{
    if (shift == 0)
        return QK_OK;
    int zoom = 0;
    int focus = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        QKResult guard = GuardCameraState();
        if (guard != QK_OK)
            return guard;
        zoom = state.currentZoom;
        focus = state.currentFocus;
    }
    // Every attempt is measured against where the lens started.
    for (int attempt = 0; attempt < focusShiftAttempts; ++attempt) {
        const int target = GetFocusWithShift(zoom, focus, shift);
        int reached = 0;
        QKResult result = PTPManualFocusSet(target, &reached);
        if (result != QK_OK) {
            QK_LOG_ERR("PTPManualFocusSet failed");
            return result;
        }
        if (target == pastLastEntry || target == focus)
            return QK_OK;
        if (focus == pastLastEntry && reached != pastLastEntry)
            return QK_OK;
        if ((shift > 0 && reached > focus) || (shift < 0 && reached < focus))
            return QK_OK;
        // The lens did not get past the start: reach one table place further.
        if (shift > 0 && shift < INT_MAX)
            ++shift;
        else if (shift < 0 && shift > INT_MIN)
            --shift;
        QK_LOG_DEB("Focus shift, change shift: %d (%d %d)", shift, target, reached);
    }
    QK_LOG_DEB("FocusShift: exit by retry counter");
    return QK_OK;
}
