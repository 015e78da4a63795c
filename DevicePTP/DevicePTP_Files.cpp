// SPDX-License-Identifier: MIT
// Download and removal of camera files: files on the card, streamed to disk
// chunk by chunk, and direct-transfer files held in memory.

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
#include <unistd.h>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"

namespace {

// Milliseconds of the system clock.
int64_t currentTimeSinceEpoch()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The local file a download writes, unbuffered: each chunk goes to the
// system as it comes, so a full disk shows at the chunk that hits it.
class OutputFile {
public:
    OutputFile() = default;
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { Close(); }

    // Replaces what is at `path`.
    bool Open(const std::string& path)
    {
        do
            fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        while (fd < 0 && errno == EINTR);
        if (fd < 0)
            QK_LOG_ERR("PTPDownloadFile: %s: %s", path.c_str(), std::strerror(errno));
        return fd >= 0;
    }

    bool Write(const void* data, unsigned int len)
    {
        const char* at = static_cast<const char*>(data);
        while (len > 0) {
            const ssize_t written = ::write(fd, at, len);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0) {
                QK_LOG_ERR("PTPDownloadFile: %s", written < 0 ? std::strerror(errno) : "nothing written");
                return false;
            }
            at += written;
            len -= static_cast<unsigned int>(written);
        }
        return true;
    }

    // Back to an empty file, for data that starts over.
    bool Rewind()
    {
        if (::lseek(fd, 0, SEEK_SET) != 0 || ::ftruncate(fd, 0) != 0) {
            QK_LOG_ERR("PTPDownloadFile: can't rewind the output file: %s", std::strerror(errno));
            return false;
        }
        return true;
    }

    bool Close()
    {
        if (fd < 0)
            return true;
        // No retry on EINTR: the descriptor is gone either way.
        const bool closed = ::close(fd) == 0;
        if (!closed)
            QK_LOG_ERR("PTPDownloadFile: closing the output file: %s", std::strerror(errno));
        fd = -1;
        return closed;
    }

private:
    int fd = -1;
};

} // namespace

QKResult DevicePTP::PTPDownloadFile(int id, std::string path)
{
    return PTPDownloadFile(id, std::move(path), [](int) {});
}

QKResult DevicePTP::PTPDownloadFile(int id, std::string path, std::function<void(int)> onDownloaded)
{
    QKResult result = id < 0 ? DownloadDirectFile_(id, path) : DownloadCardFile_(id, path);
    if (result != QK_OK)
        return result;
    if (onDownloaded)
        onDownloaded(id);
    return QK_OK;
}

QKResult DevicePTP::DownloadDirectFile_(int id, const std::string& path)
{
    std::lock_guard<std::recursive_mutex> lock(direct.directFilesMutex);
    auto found = direct.directFiles.find(id);
    if (found == direct.directFiles.end()) {
        QK_LOG_ERR("PTPDownloadFile: DirectTransfer FileId not found!");
        return QK_ERROR;
    }
    OutputFile out;
    if (!out.Open(path)) {
        QK_LOG_ERR("PTPDownloadFile: output file opening failed");
        return QK_ERROR;
    }
    for (const DataLen& chunk : found->second)
        if (chunk.len > 0 && !out.Write(chunk.data, chunk.len)) {
            QK_LOG_ERR("PTPDownloadFile: write file failed");
            return QK_ERROR;
        }
    if (!out.Close()) {
        QK_LOG_ERR("PTPDownloadFile: write file failed");
        return QK_ERROR;
    }
    QK_LOG_INF("DirectTransfer download file completed:\n    id:   %d\n    path: %s", id, path.c_str());
    return QK_OK;
}

QKResult DevicePTP::DownloadCardFile_(int id, const std::string& path)
{
    OutputFile out;
    if (!out.Open(path)) {
        QK_LOG_ERR("PTPDownloadFile: output file opening failed");
        return QK_ERROR;
    }
    unsigned int bytes = 0;
    bool failed = false;
    bool started = false;
    unsigned int attempt = 0;
    std::function<void(DataLen*)> onChunk = [&](DataLen* chunk) {
        // The callback runs inside the attempt, under transactionMutex, and
        // every attempt takes a new id: a general error makes the transaction
        // start over, and the file and the count start over with it, whether
        // the new attempt sends the data again or none at all.
        const bool newAttempt = started && attempt != nextTransactionId;
        started = true;
        attempt = nextTransactionId;
        if (newAttempt) {
            failed = !out.Rewind();
            if (failed)
                QK_LOG_ERR("PTPDownloadFile: write file failed");
            else
                QK_LOG_INF("PTPDownloadFile: data sent again, output rewritten from the start");
            bytes = 0;
        }
        if (!chunk) {
            if (!failed)
                QK_LOG_DEB("PTPDownloadFile: final chunk");
            return;
        }
        if (failed)
            return; // read to the end of the data phase, so the link stays in step
        QK_LOG_DEB("PTPDownloadFile: write chunk");
        if (!out.Write(chunk->data, chunk->len)) {
            QK_LOG_ERR("PTPDownloadFile: write file failed");
            failed = true;
            return;
        }
        bytes += chunk->len;
    };

    LogVoltage("before PTP_OC_GetObject");
    const int64_t start = currentTimeSinceEpoch();
    const bool transferred = PtpTransaction(PTP_OC_GetObject, PTPmkParams(static_cast<unsigned int>(id)),
                                            TRANSACTION_GETDATA, nullptr, nullptr, &onChunk);
    const bool closed = out.Close();
    if (!transferred) {
        QK_LOG_ERR("PTP_OC_GetObject failed");
        return QK_ERROR;
    }
    if (!closed && !failed) {
        QK_LOG_ERR("PTPDownloadFile: write file failed");
        failed = true;
    }
    if (failed)
        return QK_ERROR;
    const int64_t end = currentTimeSinceEpoch();
    PTPDebugLogMemory("after PTP_OC_GetObject");
    LogVoltage("after PTP_OC_GetObject");

    const double seconds = static_cast<double>(end - start) / 1000.0;
    // The clock counts whole milliseconds: a faster download is rated as if
    // it had taken one, a lower bound rather than an infinite rate.
    const double rateSeconds = seconds > 0.001 ? seconds : 0.001;
    const double rate = (bytes / 1024.0 / 1024.0) / rateSeconds;
    QK_LOG_INF("Download file completed:\n    id:   %d\n    path: %s\n    size: %u bytes\n"
               "    download time: %.04f sec\n    download rate: %.04f MB/sec",
               id, path.c_str(), bytes, seconds, rate);
    return QK_OK;
}

QKResult DevicePTP::RemoveDirectFile_(int id)
{
    std::lock_guard<std::recursive_mutex> lock(direct.directFilesMutex);
    auto found = direct.directFiles.find(id);
    if (found == direct.directFiles.end()) {
        QK_LOG_ERR("PTPRemoveFile: DirectTransfer FileId not found!");
        return QK_ERROR;
    }
    for (DataLen& chunk : found->second)
        FreePtpTransactionGetBuffer(chunk);
    direct.directFiles.erase(found);
    QK_LOG_INF("PTPRemoveFile: DirectTransfer %d", id);
    return QK_OK;
}

QKResult DevicePTP::PTPRemoveFile(int id)
{
    if (id < 0)
        return RemoveDirectFile_(id);
    if (!PtpTransaction(PTP_OC_DeleteObject, PTPmkParams(static_cast<unsigned int>(id), 0),
                        TRANSACTION_NODATA, nullptr, nullptr, nullptr)) {
        QK_LOG_ERR("PTP_OC_DeleteObject failed");
        return QK_ERROR;
    }
    PTPDebugLogMemory("after PTP_OC_DeleteObject");
    if (PTPUpdateObjectsInfo() != QK_OK) {
        QK_LOG_ERR("PTPUpdateObjectsInfo() failed");
        return QK_ERROR;
    }
    return QK_OK;
}

QKResult DevicePTP::PTPCleanCard()
{
    QKResult result = PTPUpdateObjectsInfo();
    if (result != QK_OK) {
        QK_LOG_ERR("PTPUpdateObjectsInfo failed");
        return result;
    }
    std::vector<int> doomed;
    {
        std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
        for (const QKFileInfo& file : catalogue.objects) {
            const std::string name = wstrToStr(file.name);
            if (name.size() < 4 || strncasecmp(name.c_str(), "img_", 4) != 0)
                continue;
            // As atoi reads it, but a number too long for an int is clamped
            // instead of being undefined.
            const long number = std::strtol(name.c_str() + 4, nullptr, 10);
            if (number > 9) {
                QK_LOG_INF("clean file: %s %d", name.c_str(), file.id);
                doomed.push_back(file.id);
            }
        }
    }
    // Each removal rebuilds the catalogue, so the lock is free by then.
    for (int id : doomed) {
        result = PTPRemoveFile(id);
        if (result != QK_OK) {
            QK_LOG_ERR("PTPRemoveFile failed: %d", id);
            return result;
        }
    }
    return QK_OK;
}
