// SPDX-License-Identifier: MIT
// Live preview: the host pulls frames at its own pace; each load reads the
// current frame out of the camera and decodes it into the buffer that is not
// lent, so that a host can keep one picture while the next one loads.

#include <chrono>
#include <cstring>
#include <new>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PreviewDecode.h"
#include "DevicePTP/PtpCodes.h"

namespace {

// The settings rarely change; reading them for every frame would cost a
// transaction a frame.
constexpr int64_t settingsMaxAgeMs = 2000;
constexpr unsigned int settingsWords = sizeof(VideoSettings) / 4;
// The height that stands for the one in height180.
constexpr uint32_t heightSeeOther = 180;

int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

} // namespace

// The decoder lives behind a pointer so that its kernels stay out of the
// headers a host includes.
PreviewData::PreviewData() : decoder(new (std::nothrow) PreviewDecoder()) {}
PreviewData::~PreviewData() = default;

QKResult DevicePTP::PTPGetVideoSettings(VideoSettings* settings)
{
    std::vector<int> words;
    if (!FetchWords(PTPmkParams(PTP_BASEMOD_VideoConfig), settingsWords, &words, "PTP_BASEMOD_VideoConfig")) {
        QK_LOG_ERR("PTP_BASEMOD_VideoConfig failed");
        return QK_ERROR;
    }
    std::memcpy(static_cast<void*>(settings), words.data(), sizeof(VideoSettings));
    return QK_OK;
}

QKResult DevicePTP::PTPLoadPreviewFrame()
{
    {
        std::lock_guard<std::mutex> lock(previewData.previewMutex);
        // The lent buffer is never written.
        const int index = previewData.heldFrame == 0 ? 1 : 0;
        const QKResult result = PTPGetPreviewFrame(&previewData.frames[index]);
        if (result != QK_OK) {
            QK_LOG_ERR("PTPGetPreviewFrame failed");
            return result;
        }
        previewData.readyFrame = index;
    }
    // Outside the lock, so that the hook may borrow the picture at once.
    OnNewPreviewFrame();
    return QK_OK;
}

QKResult DevicePTP::PTPGetPreviewFrame(DataLen* frame)
{
    VideoSettings& settings = previewData.videoSettings;
    if (NowMs() - previewData.settingsTime > settingsMaxAgeMs) {
        const VideoSettings previous = settings;
        if (PTPGetVideoSettings(&settings) != QK_OK) {
            QK_LOG_ERR("GetVideoSettings failed");
            return QK_ERROR;
        }
        previewData.settingsTime = NowMs();
        if (std::memcmp(&previous, &settings, sizeof(VideoSettings)) != 0)
            QK_LOG_INF("VideoSettings: %d %d %d %d %d %d", static_cast<int>(settings.width),
                       static_cast<int>(settings.height), static_cast<int>(settings.word3),
                       static_cast<int>(settings.height180), static_cast<int>(settings.word4),
                       static_cast<int>(settings.word0));
    }
    const unsigned int width = settings.width;
    const unsigned int height = settings.height == heightSeeOther ? settings.height180 : settings.height;
    // A size no camera sends is refused before the camera is asked for it.
    PreviewLayout layout;
    if (!PreviewDecoder::Layout(width, height, &layout)) {
        QK_LOG_ERR("PTPGetPreviewFrame: frame size %ux%u refused", width, height);
        return QK_ERROR;
    }

    DataLen raw;
    if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(PTP_BASEMOD_ReadMem, 0, width * height * 6 / 4),
                        TRANSACTION_GETDATA, &raw, nullptr, nullptr)) {
        QK_LOG_ERR("PTP_BASEMOD_ReadMem failed");
        return QK_ERROR;
    }
    // A refused frame leaves `frame` as it was, the last good picture with it.
    if (!previewData.decoder) {
        QK_LOG_ERR("PTPGetPreviewFrame: no memory for the preview decoder");
        FreePtpTransactionGetBuffer(raw);
        return QK_ERROR;
    }
    if (!previewData.decoder->DecodePixels(raw, width, height, frame)) {
        FreePtpTransactionGetBuffer(raw);
        return QK_ERROR;
    }
    unsigned char* file = static_cast<unsigned char*>(frame->data);
    // The hook sees the pixels before the headers are there.
    PostprocessPreview(layout.outWidth, layout.height, file + bmpHeaderBytes,
                       static_cast<int>(layout.rowPadding));
    FreePtpTransactionGetBuffer(raw);
    PreviewDecoder::WriteBmpHeaders(layout, file);
    return QK_OK;
}

QKResult DevicePTP::GetPreviewFrame(void** frame, int* size)
{
    if (!frame || !size) {
        QK_LOG_ERR("GetPreviewFrame: no place for the result");
        return QK_ERROR;
    }
    std::lock_guard<std::mutex> lock(previewData.previewMutex);
    if (previewData.heldFrame != -1) {
        QK_LOG_ERR("GetPreviewFrame: Previous preview frame does not released");
        return QK_ERROR;
    }
    if (previewData.readyFrame == -1) {
        QK_LOG_ERR("GetPreviewFrame: result not ready");
        return QK_NOT_READY;
    }
    const DataLen& picture = previewData.frames[previewData.readyFrame];
    *frame = picture.data;
    *size = static_cast<int>(picture.len);
    previewData.heldFrame = previewData.readyFrame;

    // The picture may come back after the camera object is gone. The weak
    // reference lives on the heap as long as the release function does, so
    // it goes also when the function is dropped uncalled.
    auto owner = std::make_shared<std::weak_ptr<DevicePTP>>(shared_from_this());
    RegisterPointer(picture.data, [owner](void*) {
        if (std::shared_ptr<DevicePTP> camera = owner->lock()) {
            std::lock_guard<std::mutex> relock(camera->previewData.previewMutex);
            camera->previewData.heldFrame = -1;
        }
        owner->reset();
    });
    return QK_OK;
}

void DevicePTP::FreePreviewFrames()
{
    for (DataLen& picture : previewData.frames) {
        delete[] static_cast<unsigned char*>(picture.data);
        picture = DataLen();
    }
}
