// SPDX-License-Identifier: MIT
#include <algorithm>

#include "sim/CameraSettings.h"
#include "sim/CameraShutter.h"
#include "sim/PtpContainer.h"
#include "sim/PtpReplies.h"
#include "sim/PtpResponder.h"
#include "sim/TestJpeg.h"

namespace qksim {

namespace {

std::chrono::milliseconds Ms(unsigned ms) { return std::chrono::milliseconds(ms); }

} // namespace

CameraShutter::CameraShutter(std::shared_ptr<CameraCard> card_) : card(std::move(card_))
{
    cameraLog = "QKm camera log\n"
                "00000.120 boot: main firmware started\n"
                "00000.480 lens: parked\n"
                "00001.020 ptp: session opened\n";
}

void CameraShutter::SetShotDuration(unsigned ms)
{
    std::lock_guard<std::mutex> lock(mutex);
    shotMs = ms;
}

void CameraShutter::SetFileDelay(unsigned ms, bool never)
{
    std::lock_guard<std::mutex> lock(mutex);
    fileDelayMs = ms;
    fileNever = never;
}

void CameraShutter::SetRemoteReadyDelay(unsigned ms)
{
    std::lock_guard<std::mutex> lock(mutex);
    remoteReadyMs = ms;
}

void CameraShutter::SetPictureSize(int width, int height)
{
    std::lock_guard<std::mutex> lock(mutex);
    pictureWidth = width;
    pictureHeight = height;
}

void CameraShutter::SetPictureBytes(size_t bytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    pictureBytes = bytes;
}

void CameraShutter::SetRemoteChunking(uint32_t bytes, bool shuffled)
{
    std::lock_guard<std::mutex> lock(mutex);
    pieceBytes = bytes;
    outOfOrder = shuffled;
}

void CameraShutter::QueueRemotePieces(std::vector<RemotePiece> pieces)
{
    std::lock_guard<std::mutex> lock(mutex);
    queuedPieces.push_back(std::move(pieces));
}

void CameraShutter::SetCameraLog(std::string text)
{
    std::lock_guard<std::mutex> lock(mutex);
    cameraLog = std::move(text);
}

void CameraShutter::AbortRemoteCapture()
{
    std::lock_guard<std::mutex> lock(mutex);
    remoteActive = false;
    remoteFetching = false;
    remotePieces.clear();
}

int CameraShutter::ShotsStarted() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return shots;
}

std::vector<uint8_t> CameraShutter::LastRemotePicture() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return lastRemotePicture;
}

bool CameraShutter::Recording() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return recording;
}

int CameraShutter::AeAfUpdates() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return aeAfUpdates;
}

PtpReply CameraShutter::Shoot(const PtpCommand&)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (shotRunning || recording)
        return RefusalReply(ptp::RC_DeviceBusy);
    shotRunning = true;
    shotStarted = Clock::now();
    ++shots;
    return PtpReply{};
}

std::deque<RemotePiece> CameraShutter::CutLocked(const std::vector<uint8_t>& picture) const
{
    const size_t step = pieceBytes ? pieceBytes : std::max<size_t>(picture.size(), 1);
    std::vector<RemotePiece> inOrder;
    for (size_t at = 0; at < picture.size(); at += step) {
        RemotePiece piece;
        piece.bytes.assign(picture.begin() + static_cast<std::ptrdiff_t>(at),
                           picture.begin() + static_cast<std::ptrdiff_t>(std::min(at + step, picture.size())));
        inOrder.push_back(std::move(piece));
    }
    if (inOrder.empty())
        inOrder.emplace_back();
    inOrder.front().position = 0;
    std::deque<RemotePiece> pieces;
    if (!outOfOrder || inOrder.size() < 2) {
        pieces.assign(inOrder.begin(), inOrder.end());
        return pieces;
    }
    const size_t half = inOrder.size() / 2;
    inOrder[half].position = static_cast<int32_t>(half * step);
    pieces.insert(pieces.end(), inOrder.begin() + static_cast<std::ptrdiff_t>(half), inOrder.end());
    pieces.insert(pieces.end(), inOrder.begin(), inOrder.begin() + static_cast<std::ptrdiff_t>(half));
    return pieces;
}

PtpReply CameraShutter::RemoteCaptureStart(const PtpCommand&)
{
    std::unique_lock<std::mutex> lock(mutex);
    // A capture nobody began to fetch is given up for the new one, as when
    // the host lost the answer to its start: only a transfer under way is busy.
    if ((remoteActive && remoteFetching) || shotRunning || recording)
        return RefusalReply(ptp::RC_DeviceBusy);
    remoteActive = true;
    remoteFetching = false;
    lastPieceSent = false;
    remoteStarted = Clock::now();
    if (!queuedPieces.empty()) {
        remotePieces.assign(queuedPieces.front().begin(), queuedPieces.front().end());
        queuedPieces.erase(queuedPieces.begin());
        lastRemotePicture.clear();
        for (const RemotePiece& piece : remotePieces)
            lastRemotePicture.insert(lastRemotePicture.end(), piece.bytes.begin(), piece.bytes.end());
        return PtpReply{};
    }
    const int width = pictureWidth, height = pictureHeight;
    const size_t padTo = pictureBytes;
    lock.unlock();
    // The picture shows the number the next card file would get.
    std::vector<uint8_t> picture = PadJpeg(TestPictureJpeg(card->TakeFileNumber(), width, height), padTo);
    lock.lock();
    remotePieces = CutLocked(picture);
    lastRemotePicture = std::move(picture);
    return PtpReply{};
}

bool CameraShutter::RemoteReadyLocked(Clock::time_point now) const
{
    return remoteActive && !remotePieces.empty() && now >= remoteStarted + Ms(remoteReadyMs);
}

PtpReply CameraShutter::RemoteCaptureIsReady(const PtpCommand&)
{
    std::lock_guard<std::mutex> lock(mutex);
    PtpReply reply;
    reply.responseParams = {RemoteReadyLocked(Clock::now()) ? 1u : 0u};
    return reply;
}

PtpReply CameraShutter::RemoteCaptureGetData(const PtpCommand&)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!remoteActive)
        return RefusalReply(ptp::RC_AccessDenied);
    if (!RemoteReadyLocked(Clock::now()))
        return RefusalReply(ptp::RC_DeviceBusy);
    RemotePiece piece = std::move(remotePieces.front());
    remotePieces.pop_front();
    const bool more = !remotePieces.empty();
    PtpReply reply;
    reply.hasData = true;
    reply.responseParams = {static_cast<uint32_t>(piece.bytes.size()), more ? 1u : 0u,
                            static_cast<uint32_t>(piece.position)};
    reply.data = std::move(piece.bytes);
    remoteFetching = more;
    if (!more) {
        remoteActive = false;
        lastPieceSent = true;
    }
    return reply;
}

PtpReply CameraShutter::StartVideo(const PtpCommand&)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (recording || shotRunning)
        return RefusalReply(ptp::RC_DeviceBusy);
    recording = true;
    recordingStarted = Clock::now();
    return PtpReply{};
}

PtpReply CameraShutter::StopVideo(const PtpCommand&)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (!recording)
        return RefusalReply(ptp::RC_AccessDenied);
    recording = false;
    // A movie grows with its length: 16 KiB and 1 KiB per 10 ms recorded.
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - recordingStarted);
    const int number = card->TakeFileNumber();
    const size_t size = 16384 + static_cast<size_t>(ms.count() / 10) * 1024;
    card->AddFile(CameraCard::FileName("MVI_", number, ".MOV"),
                  FillerBytes(size, static_cast<uint8_t>(number)));
    return PtpReply{};
}

PtpReply CameraShutter::UpdateAeAf(const PtpCommand&)
{
    std::lock_guard<std::mutex> lock(mutex);
    ++aeAfUpdates;
    return PtpReply{};
}

PtpReply CameraShutter::GetCamLog(const PtpCommand&)
{
    std::lock_guard<std::mutex> lock(mutex);
    ++logsWritten;
    // A new log replaces the old file, under a new handle.
    if (uint32_t old = card->Find(kLogFileName))
        card->Remove(old);
    std::string text = cameraLog + "log written: " + std::to_string(logsWritten) + "\n";
    card->AddFile(kLogFileName, std::vector<uint8_t>(text.begin(), text.end()));
    return PtpReply{};
}

uint32_t CameraShutter::PollEvents()
{
    std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    uint32_t bits = 0;
    if (shotRunning && now >= shotStarted + Ms(shotMs)) {
        shotRunning = false;
        const int number = card->TakeFileNumber();
        // Encoding a small picture takes a millisecond or so; it happens
        // once per shot, when the shot is found finished.
        std::vector<uint8_t> picture = PadJpeg(TestPictureJpeg(number, pictureWidth, pictureHeight), pictureBytes);
        const std::string name = CameraCard::FileName("IMG_", number, ".JPG");
        if (fileNever || fileDelayMs > 0)
            card->AddFileLater(name, std::move(picture), fileDelayMs, fileNever);
        else
            card->AddFile(name, std::move(picture));
        bits |= ptp::EVENT_SHOOT_FINISHED;
    }
    if (RemoteReadyLocked(now))
        bits |= ptp::EVENT_REMOTE_AVAILABLE;
    if (remoteFetching)
        bits |= ptp::EVENT_GET_JPEG_CHUNK;
    if (lastPieceSent) {
        bits |= ptp::EVENT_LAST_JPEG_CHUNK;
        lastPieceSent = false;
    }
    return bits;
}

void InstallShutterOperations(PtpResponder& responder, const std::shared_ptr<CameraShutter>& shutter,
                              CameraSettings& settings)
{
    std::weak_ptr<CameraShutter> weak = shutter;
    using Operation = PtpReply (CameraShutter::*)(const PtpCommand&);
    auto install = [&](uint32_t subCommand, Operation operation) {
        responder.SetBuiltinVendor(subCommand, [weak, operation](const PtpCommand& command) {
            std::shared_ptr<CameraShutter> s = weak.lock();
            return s ? ((*s).*operation)(command) : RefusalReply(ptp::RC_GeneralError);
        });
    };
    install(ptp::QKM_Shoot, &CameraShutter::Shoot);
    install(ptp::QKM_RemoteCaptureStart, &CameraShutter::RemoteCaptureStart);
    install(ptp::QKM_RemoteCaptureIsReady, &CameraShutter::RemoteCaptureIsReady);
    install(ptp::QKM_RemoteCaptureGetData, &CameraShutter::RemoteCaptureGetData);
    install(ptp::QKM_StartVideo, &CameraShutter::StartVideo);
    install(ptp::QKM_StopVideo, &CameraShutter::StopVideo);
    install(ptp::QKM_UpdateAEAF, &CameraShutter::UpdateAeAf);
    install(ptp::QKM_GetCamLog, &CameraShutter::GetCamLog);
    settings.AddEventSource([weak]() {
        std::shared_ptr<CameraShutter> s = weak.lock();
        return s ? s->PollEvents() : 0u;
    });
}

} // namespace qksim
