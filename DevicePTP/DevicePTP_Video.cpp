// SPDX-License-Identifier: MIT
// Video recording, found on the card like a shot, and the AE/AF update.

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"

namespace {
constexpr int64_t aeAfSettleMs = 1000;
} // namespace

QKResult DevicePTP::PTPStartVideo()
{
    // Set before any traffic, so no shot starts while this runs.
    videoRecording = true;
    QKResult result = PTPUpdateObjectsInfo();
    if (result != QK_OK) {
        QK_LOG_ERR("PTPUpdateObjectsInfo() failed");
        videoRecording = false;
        return result;
    }
    if (QKMCommand(PTP_QKM_StartVideo, "PTP_QKM_StartVideo failed") != QK_OK) {
        videoRecording = false;
        return QK_ERROR;
    }
    return QK_OK;
}

QKResult DevicePTP::PTPStopVideo(QKFileInfo* file)
{
    // A stop the camera refused leaves the recording running.
    if (QKMCommand(PTP_QKM_StopVideo, "PTP_QKM_StopVideo failed") != QK_OK)
        return QK_ERROR;
    videoRecording = false;
    QKResult result = PTPUpdateObjectsInfo();
    if (result != QK_OK) {
        QK_LOG_ERR("PTPUpdateObjectsInfo() failed");
        return result;
    }
    std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
    if (catalogue.objects.empty() || catalogue.latestFileId == -1) {
        QK_LOG_ERR("PTPStopVideo: new file not found");
        return QK_ERROR;
    }
    for (const QKFileInfo& listed : catalogue.objects)
        if (listed.id == catalogue.latestFileId) {
            *file = listed;
            return QK_OK;
        }
    return QK_ERROR;
}

ContProc* DevicePTP::PTPUpdateAeAf()
{
    DevicePTP* self = this;
    return new ContProc([self](ContProc* proc, int64_t* wait, QKResult* result, bool* more) {
        if (self->QKMCommand(PTP_QKM_UpdateAEAF, "PTP_QKM_UpdateAEAF failed") != QK_OK) {
            *result = QK_ERROR;
            *more = false;
            return;
        }
        // The camera needs a second to settle; the chain ends after it.
        *wait = aeAfSettleMs;
        *more = true;
        proc->step = ContProc::sentinel;
    });
}
