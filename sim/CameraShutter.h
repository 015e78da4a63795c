// SPDX-License-Identifier: MIT
#pragma once
// The shutter side of a virtual camera: normal shots onto the card, remote
// capture straight over USB, video recording, the AE/AF update and the
// camera's own log file.
//
// Everything timed is worked out from timestamps when the engine asks (the
// event word, the readiness poll): handlers never wait. One lock guards it
// all; the card has its own, always taken after this one.

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/CameraCard.h"
#include "sim/VirtualBus.h"

namespace qksim {

// Bits of the event word that the shutter raises.
namespace ptp {
constexpr uint32_t EVENT_REMOTE_AVAILABLE = 0x400;
constexpr uint32_t EVENT_GET_JPEG_CHUNK = 0x1000;
constexpr uint32_t EVENT_LAST_JPEG_CHUNK = 0x4000;
} // namespace ptp

// One reply of remote capture: its bytes and its position word (-1: goes
// on from the piece before).
struct RemotePiece {
    std::vector<uint8_t> bytes;
    int32_t position = -1;
};

class CameraShutter {
public:
    using Clock = std::chrono::steady_clock;

    explicit CameraShutter(std::shared_ptr<CameraCard> card);

    // How long a shot takes before the camera reports it finished.
    void SetShotDuration(unsigned ms);
    // How long after that its file shows on the card; `never`: it doesn't.
    void SetFileDelay(unsigned ms, bool never = false);
    // How long remote capture takes before its data waits.
    void SetRemoteReadyDelay(unsigned ms);
    void SetPictureSize(int width, int height);
    // Pictures grow to `bytes` with comment segments (still valid JPEG
    // files), to stand for a real camera's large files; 0 leaves them as made.
    void SetPictureBytes(size_t bytes);
    // Remote pictures go out in pieces of this size. Out of order, the second
    // half comes first, each half a run that starts with its byte offset as
    // position, so that only the positions restore the picture.
    void SetRemoteChunking(uint32_t pieceBytes, bool outOfOrder);
    // The next remote capture delivers exactly these pieces, in this order.
    void QueueRemotePieces(std::vector<RemotePiece> pieces);
    void SetCameraLog(std::string text);
    // The camera gives up a remote capture whose pieces weren't all fetched.
    void AbortRemoteCapture();

    // What happened so far.
    int ShotsStarted() const;
    // The picture of the last remote capture, whole and in order.
    std::vector<uint8_t> LastRemotePicture() const;
    bool Recording() const;
    int AeAfUpdates() const;

    // The operations, as the handlers call them.
    PtpReply Shoot(const PtpCommand& command);
    PtpReply RemoteCaptureStart(const PtpCommand& command);
    PtpReply RemoteCaptureIsReady(const PtpCommand& command);
    PtpReply RemoteCaptureGetData(const PtpCommand& command);
    PtpReply StartVideo(const PtpCommand& command);
    PtpReply StopVideo(const PtpCommand& command);
    PtpReply UpdateAeAf(const PtpCommand& command);
    PtpReply GetCamLog(const PtpCommand& command);
    // The shutter's bits of the event word, as of now.
    uint32_t PollEvents();

    static constexpr const char* kLogFileName = "img_0002.jpg";

private:
    std::deque<RemotePiece> CutLocked(const std::vector<uint8_t>& picture) const;
    bool RemoteReadyLocked(Clock::time_point now) const;

    const std::shared_ptr<CameraCard> card;
    mutable std::mutex mutex;
    unsigned shotMs = 20;
    unsigned fileDelayMs = 0;
    bool fileNever = false;
    unsigned remoteReadyMs = 20;
    int pictureWidth = 320;
    int pictureHeight = 240;
    size_t pictureBytes = 0;
    uint32_t pieceBytes = 8192;
    bool outOfOrder = false;
    std::string cameraLog;

    bool shotRunning = false;
    Clock::time_point shotStarted;
    int shots = 0;

    bool remoteActive = false;
    Clock::time_point remoteStarted;
    std::deque<RemotePiece> remotePieces;
    std::vector<std::vector<RemotePiece>> queuedPieces;
    std::vector<uint8_t> lastRemotePicture;
    bool remoteFetching = false;
    bool lastPieceSent = false;

    bool recording = false;
    Clock::time_point recordingStarted;
    int aeAfUpdates = 0;
    int logsWritten = 0;
};

class CameraSettings;

// Shoot, remote capture, video, AE/AF and the camera log; the shutter's
// event bits join the settings' event word.
void InstallShutterOperations(PtpResponder& responder, const std::shared_ptr<CameraShutter>& shutter,
                              CameraSettings& settings);

} // namespace qksim
