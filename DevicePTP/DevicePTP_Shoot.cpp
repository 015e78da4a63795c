// SPDX-License-Identifier: MIT
// Shooting. A normal shot lands on the card and is found by comparing the
// catalogue before and after it; a direct shot comes over USB in pieces and
// stays in memory as a direct-transfer file. Both are chains of steps.

#include <algorithm>
#include <chrono>
#include <cwchar>
#include <thread>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"
#include "proc/ContProc.h"

namespace {

constexpr int64_t pollMs = 100;
constexpr int fileSearchRetries = 4;
#ifndef QK_CHAIN_WAIT_MAX_MS // capped in builds whose camera is a script
#define QK_CHAIN_WAIT_MAX_MS 500
#endif
constexpr auto fileSearchWait = std::chrono::milliseconds(std::min(500, QK_CHAIN_WAIT_MAX_MS));
// A direct picture is a few megabytes in a few dozen pieces; a camera that
// keeps saying "more" past these is broken, not slow.
constexpr int maxDirectPieces = 4096;
constexpr unsigned int maxDirectBytes = 256u << 20;

// Event bits that only go to the log while a direct shot runs.
constexpr struct {
    unsigned int bit;
    const char* name;
} directEvents[] = {
    {0x200, "EVENT_RAW_AVAILABLE"},    {0x400, "EVENT_REMOTE_AVAILABLE"},
    {0x800, "EVENT_REMOTE_TIMEOUT"},   {0x1000, "EVENT_GET_JPEG_CHUNK"},
    {0x2000, "EVENT_GET_JPEG_TIMEOUT"}, {0x4000, "EVENT_LAST_JPEG_CHUNK"},
};

void FreePieces(std::map<int, std::list<DataLen>>* runs)
{
    for (auto& run : *runs)
        for (DataLen& piece : run.second)
            DevicePTP::FreePtpTransactionGetBuffer(piece);
    runs->clear();
}

} // namespace

void DevicePTP::SetChainTimeLimit(std::chrono::milliseconds limit) { chainTimeLimitMs = limit.count(); }
std::chrono::milliseconds DevicePTP::GetChainTimeLimit() const
{
    return std::chrono::milliseconds(chainTimeLimitMs.load());
}
std::chrono::steady_clock::time_point DevicePTP::ChainDeadline() const
{
    return std::chrono::steady_clock::now() + GetChainTimeLimit();
}

ContProc* DevicePTP::PTPShoot()
{
    DevicePTP* self = this;
    return PTPShoot_Normal([self](QKFileInfo file) { self->OnShootCompleted(file); });
}

ContProc* DevicePTP::PTPShoot_Normal(std::function<void(QKFileInfo)> onCompleted)
{
    return PTPShoot_NormalGated(std::move(onCompleted), nullptr);
}

ContProc* DevicePTP::PTPShoot_NormalGated(std::function<void(QKFileInfo)> onCompleted,
                                          std::function<void()> beforeCommand)
{
    DevicePTP* self = this;
    return new ContProc([self, onCompleted, beforeCommand](ContProc* proc, int64_t* wait, QKResult* result,
                                                           bool* more) {
        self->ShootNormalStart_(proc, onCompleted, beforeCommand, wait, result, more);
    });
}

void DevicePTP::ShootNormalStart_(ContProc* proc, std::function<void(QKFileInfo)> onCompleted,
                                  const std::function<void()>& beforeCommand, int64_t* wait,
                                  QKResult* result, bool* more)
{
    *more = false;
    if (videoRecording) {
        QK_LOG_ERR("Shooting not supported: video recording started");
        *result = QK_ERROR;
        return;
    }
    QK_LOG_INF("Shoot started on camera");
    cameraEvents[SHOOT_FINISHED] = false;
    TemporaryStopPreview(true);
    LogVoltage("before SetPreShootProperty");
    *result = SetPreShootProperty();
    if (*result != QK_OK) {
        QK_LOG_ERR("SetPreShootProperty() failed");
        return;
    }
    // The listing before the shot is what the new file is found against.
    LogVoltage("before PTPUpdateObjectsInfo");
    *result = PTPUpdateObjectsInfo();
    if (*result != QK_OK) {
        QK_LOG_ERR("PTPUpdateObjectsInfo() failed");
        return;
    }
    QK_LOG_DEB("Shoot transaction");
    LogVoltage("before PTP_QKM_Shoot");
    if (beforeCommand)
        beforeCommand();
    if (QKMCommand(PTP_QKM_Shoot, "PTP_QKM_Shoot failed") != QK_OK) {
        *result = QK_ERROR;
        return;
    }
    DevicePTP* self = this;
    const auto deadline = ChainDeadline();
    *wait = pollMs;
    *more = true;
    // onCompleted is this call's own copy, so replacing the step is safe.
    proc->step = [self, onCompleted, deadline](ContProc*, int64_t* w, QKResult* r, bool* m) {
        self->ShootNormalAwait_(onCompleted, deadline, w, r, m);
    };
}

void DevicePTP::ShootNormalAwait_(const std::function<void(QKFileInfo)>& onCompleted,
                                  std::chrono::steady_clock::time_point deadline, int64_t* wait,
                                  QKResult* result, bool* more)
{
    *more = false;
    LogVoltage("before PTPLoadEvents");
    *result = PTPLoadEvents();
    if (*result != QK_OK) {
        QK_LOG_ERR("PTPLoadEvents() failed");
        return;
    }
    if (!cameraEvents[SHOOT_FINISHED]) {
        if (std::chrono::steady_clock::now() >= deadline) {
            QK_LOG_ERR("Shoot: no finish event within %lld ms", static_cast<long long>(chainTimeLimitMs.load()));
            *result = QK_ERROR;
            return;
        }
        *wait = pollMs;
        *more = true;
        return;
    }
    PTPDebugLogMemory("SHOOT_FINISHED event");
    QKFileInfo file;
    *result = FindShotFile_(&file);
    if (*result != QK_OK)
        return;
    QK_LOG_INF("Shoot Completed:\n    name: %s\n    id:   %d\n    size: %d", wstrToStr(file.name).c_str(),
               file.id, file.size);
    onCompleted(file);
    TemporaryStopPreview(false);
    *result = QK_OK;
}

QKResult DevicePTP::FindShotFile_(QKFileInfo* file)
{
    // The camera may report the shot finished before its file is listed.
    for (int retry = 0;;) {
        LogVoltage("before PTPUpdateObjectsInfo");
        QKResult result = PTPUpdateObjectsInfo();
        if (result != QK_OK) {
            QK_LOG_ERR("PTPUpdateObjectsInfo() failed");
            return result;
        }
        PTPDebugLogMemory("after PTPUpdateObjectsInfo");
        LogVoltage("after PTPUpdateObjectsInfo");

        std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
        if (!catalogue.objects.empty() && catalogue.latestFileId != -1) {
            for (const QKFileInfo& listed : catalogue.objects)
                if (listed.id == catalogue.latestFileId) {
                    *file = listed;
                    return QK_OK;
                }
            QK_LOG_ERR("Shoot: file %d not in the catalogue", catalogue.latestFileId);
            return QK_ERROR;
        }
        if (++retry > fileSearchRetries) {
            QK_LOG_ERR("Shoot: new file not found");
            return QK_ERROR;
        }
        QK_LOG_ERR("Shoot: new file not found. Retry: %d", retry);
        std::this_thread::sleep_for(fileSearchWait);
    }
}

ContProc* DevicePTP::PTPShoot_Direct(std::function<void(QKFileInfo)> onCompleted)
{
    return PTPShoot_DirectGated(std::move(onCompleted), nullptr);
}

ContProc* DevicePTP::PTPShoot_DirectGated(std::function<void(QKFileInfo)> onCompleted,
                                          std::function<void()> beforeCommand)
{
    DevicePTP* self = this;
    return new ContProc([self, onCompleted, beforeCommand](ContProc* proc, int64_t* wait, QKResult* result,
                                                           bool* more) {
        self->ShootDirectStart_(proc, onCompleted, beforeCommand, wait, result, more);
    });
}

void DevicePTP::ShootDirectStart_(ContProc* proc, std::function<void(QKFileInfo)> onCompleted,
                                  const std::function<void()>& beforeCommand, int64_t* wait,
                                  QKResult* result, bool* more)
{
    *more = false;
    if (videoRecording) {
        QK_LOG_ERR("Shooting not supported: video recording started");
        *result = QK_ERROR;
        return;
    }
    QK_LOG_INF("Shoot started on camera (remote version)");
    TemporaryStopPreview(true);
    *result = SetPreShootProperty();
    if (*result != QK_OK) {
        QK_LOG_ERR("SetPreShootProperty() failed");
        return;
    }
    PTPDebugLogMemory("pre shoot transaction");
    LogVoltage("before PTP_QKM_RemoteCaptureStart");
    QK_LOG_DEB("Shoot transaction (remote version)");
    if (beforeCommand)
        beforeCommand();
    if (QKMCommand(PTP_QKM_RemoteCaptureStart, "PTP_QKM_RemoteCaptureStart failed") != QK_OK) {
        *result = QK_ERROR;
        return;
    }
    PTPDebugLogMemory("after shoot transaction");
    DevicePTP* self = this;
    const auto deadline = ChainDeadline();
    *wait = pollMs;
    *more = true;
    proc->step = [self, onCompleted, deadline](ContProc*, int64_t* w, QKResult* r, bool* m) {
        self->ShootDirectAwait_(onCompleted, deadline, w, r, m);
    };
}

void DevicePTP::ShootDirectAwait_(const std::function<void(QKFileInfo)>& onCompleted,
                                  std::chrono::steady_clock::time_point deadline, int64_t* wait,
                                  QKResult* result, bool* more)
{
    *more = false;
    DebugShootDirectEvents();
    LogVoltage("before PTP_QKM_RemoteCaptureIsReady");
    std::vector<unsigned int> words;
    if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(PTP_QKM_RemoteCaptureIsReady), TRANSACTION_NODATA,
                        nullptr, &words, nullptr)) {
        QK_LOG_ERR("PTP_QKM_RemoteCaptureIsReady failed");
        *result = QK_ERROR;
        return;
    }
    PTPDebugLogMemory("after PTP_QKM_RemoteCaptureIsReady");
    LogVoltage("after PTP_QKM_RemoteCaptureIsReady");
    if (words[0] == 0) {
        if (std::chrono::steady_clock::now() >= deadline) {
            QK_LOG_ERR("Shoot: remote capture not ready within %lld ms",
                       static_cast<long long>(chainTimeLimitMs.load()));
            *result = QK_ERROR;
            return;
        }
        *wait = pollMs;
        *more = true;
        return;
    }
    QK_LOG_ERR("Remote capture ready");

    std::list<DataLen> chunks;
    unsigned int totalSize = 0;
    if (FetchDirectPicture_(deadline, &chunks, &totalSize) != QK_OK) {
        *result = QK_ERROR;
        return;
    }
    // Ids are taken only by completed shots and never given back.
    const int id = direct.nextDirectFileId--;
    {
        std::lock_guard<std::recursive_mutex> lock(direct.directFilesMutex);
        direct.directFiles[id] = std::move(chunks);
        QK_LOG_INF("Total DirectTransfer buffered files: %d", static_cast<int>(direct.directFiles.size()));
    }
    QKFileInfo file;
    file.id = id;
    const std::wstring name = strToWstr("direct_" + std::to_string(-static_cast<long long>(id)) + ".jpg");
    std::wcsncpy(file.name, name.c_str(), sizeof(file.name) / sizeof(file.name[0]) - 1);
    file.size = static_cast<int>(totalSize);
    QK_LOG_INF("Direct Shoot Completed:\n    name: %s\n    id:   %d\n    size: %d", wstrToStr(file.name).c_str(),
               file.id, file.size);
    onCompleted(file);
    TemporaryStopPreview(false);
    *result = QK_OK;
}

QKResult DevicePTP::FetchDirectPicture_(std::chrono::steady_clock::time_point deadline,
                                        std::list<DataLen>* chunks, unsigned int* totalSize)
{
    // Runs of pieces by the position that started them; a piece with
    // position -1 continues the current run. The key only orders the runs.
    std::map<int, std::list<DataLen>> runs;
    int currentPosition = 0;
    unsigned int total = 0;
    for (int pieces = 0;; ++pieces) {
        if (pieces == maxDirectPieces || std::chrono::steady_clock::now() >= deadline) {
            QK_LOG_ERR("PTP_QKM_RemoteCaptureGetData: picture not complete after %d pieces, %u bytes", pieces,
                       total);
            FreePieces(&runs);
            return QK_ERROR;
        }
        LogVoltage("before PTP_QKM_RemoteCaptureGetData");
        DataLen chunk;
        std::vector<unsigned int> words;
        if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(PTP_QKM_RemoteCaptureGetData, 1), TRANSACTION_GETDATA,
                            &chunk, &words, nullptr)) {
            QK_LOG_ERR("PTP_QKM_RemoteCaptureGetData failed");
            FreePieces(&runs);
            return QK_ERROR;
        }
        PTPDebugLogMemory("after PTP_QKM_RemoteCaptureGetData");
        LogVoltage("after PTP_QKM_RemoteCaptureGetData");
        const int length = static_cast<int>(words[0]);
        const int more = static_cast<int>(words[1]);
        const int position = static_cast<int>(words[2]);
        QK_LOG_DEB("RemoteCaptureGetData: %d %d %d", length, more, position);
        DebugShootDirectEvents();
        if (position != -1)
            currentPosition = position;
        runs[currentPosition].push_back(chunk);
        if (chunk.len > maxDirectBytes - total) {
            QK_LOG_ERR("PTP_QKM_RemoteCaptureGetData: picture over %u bytes", maxDirectBytes);
            FreePieces(&runs);
            return QK_ERROR;
        }
        total += chunk.len;
        if (more == 0)
            break;
    }
    chunks->clear();
    for (auto& run : runs)
        chunks->splice(chunks->end(), run.second);
    *totalSize = total;
    return QK_OK;
}

void DevicePTP::DebugShootDirectEvents()
{
    std::vector<int> word;
    if (!FetchWords(PTPmkParams(PTP_QKM_GetEvents), 1, &word, "PTP_QKM_GetEvents")) {
        QK_LOG_ERR("PTP_QKM_GetEvents failed");
        return;
    }
    for (const auto& event : directEvents)
        if (static_cast<unsigned int>(word[0]) & event.bit)
            QK_LOG_DEB("ShootDirectEvent: %s", event.name);
}
