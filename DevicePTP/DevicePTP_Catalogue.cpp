// SPDX-License-Identifier: MIT
// The catalogue of the card: storage, object handles, one ObjectInfo per
// object, and at each rebuild the file that is new since the one before.
// Every reply is read within its length; a reply too short for what it
// claims fails the rebuild.

#include <algorithm>
#include <cwchar>
#include <set>
#include <utility>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"

namespace {

constexpr unsigned int maxObjects = 5120;
// ObjectInfo: ObjectCompressedSize at 8, the Filename string at 52.
constexpr unsigned int objectSizeOffset = 8;
constexpr unsigned int filenameOffset = 52;
constexpr unsigned int maxNameLength = 127;

unsigned int Le32(const unsigned char* bytes)
{
    return static_cast<unsigned int>(bytes[0]) | static_cast<unsigned int>(bytes[1]) << 8 |
           static_cast<unsigned int>(bytes[2]) << 16 | static_cast<unsigned int>(bytes[3]) << 24;
}

// Pictures and movies: a name of 5 characters or more ending in .jpg or .mov.
bool IsCatalogued(const QKFileInfo& file)
{
    const size_t length = std::wcslen(file.name);
    if (length <= 4)
        return false;
    const wchar_t* extension = file.name + length - 4;
    return wcscasecmp(extension, L".jpg") == 0 || wcscasecmp(extension, L".mov") == 0;
}

// Fills `file` from an ObjectInfo data set; false if the reply can't hold
// what it announces.
bool ParseObjectInfo(const DataLen& reply, unsigned int handle, QKFileInfo* file)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(reply.data);
    if (reply.len < filenameOffset + 1) {
        QK_LOG_ERR("PTP_OC_GetObjectInfo failed: object %u: ObjectInfo of %u bytes has no Filename",
                   handle, reply.len);
        return false;
    }
    const unsigned int count = bytes[filenameOffset];
    if (filenameOffset + 1 + 2 * count > reply.len) {
        QK_LOG_ERR("PTP_OC_GetObjectInfo failed: object %u: Filename of %u characters past the end of "
                   "%u bytes",
                   handle, count, reply.len);
        return false;
    }
    // The low byte of each 16-bit character, as the name's narrow form.
    char narrow[maxNameLength + 1] = {};
    const unsigned int kept = count < maxNameLength ? count : maxNameLength;
    for (unsigned int i = 0; i < kept; ++i)
        narrow[i] = static_cast<char>(bytes[filenameOffset + 1 + 2 * i]);
    const std::wstring name = strToWstr(narrow);
    file->id = static_cast<int>(handle);
    file->size = static_cast<int>(Le32(bytes + objectSizeOffset));
    std::wcsncpy(file->name, name.c_str(), sizeof(file->name) / sizeof(file->name[0]));
    return true;
}

} // namespace

QKResult DevicePTP::PTPGetStorageId(unsigned int* storage)
{
    DataLen reply;
    if (!PtpTransaction(PTP_OC_GetStorageIDs, PTPmkParams(), TRANSACTION_GETDATA, &reply, nullptr,
                        nullptr)) {
        QK_LOG_ERR("PTP_OC_GetStorageIDs failed");
        return QK_ERROR;
    }
    const unsigned char* bytes = static_cast<const unsigned char*>(reply.data);
    // A camera that lists no storage has no card to work on.
    const bool hasFirst = reply.len >= 8 && Le32(bytes) > 0;
    if (hasFirst)
        *storage = Le32(bytes + 4);
    else
        QK_LOG_ERR("PTP_OC_GetStorageIDs failed: no storage in a reply of %u bytes", reply.len);
    FreePtpTransactionGetBuffer(reply);
    return hasFirst ? QK_OK : QK_ERROR;
}

QKResult DevicePTP::PTPGetObjectHandles(std::vector<unsigned int>* handles)
{
    unsigned int storage = 0;
    QKResult result = PTPGetStorageId(&storage);
    if (result != QK_OK)
        return result;

    DataLen reply;
    if (!PtpTransaction(PTP_OC_GetObjectHandles, PTPmkParams(storage, 0, 0), TRANSACTION_GETDATA,
                        &reply, nullptr, nullptr)) {
        QK_LOG_ERR("PTP_OC_GetObjectHandles failed");
        return QK_ERROR;
    }
    const unsigned char* bytes = static_cast<const unsigned char*>(reply.data);
    if (reply.len < 4) {
        QK_LOG_ERR("PTP_OC_GetObjectHandles failed: reply of %u bytes", reply.len);
        FreePtpTransactionGetBuffer(reply);
        return QK_ERROR;
    }
    const unsigned int count = Le32(bytes);
    if (count > maxObjects) {
        FreePtpTransactionGetBuffer(reply);
        QK_LOG_ERR("getObjectHandles failed: to many objects");
        return QK_ERROR;
    }
    if (4 + 4 * count > reply.len) {
        QK_LOG_ERR("PTP_OC_GetObjectHandles failed: %u handles announced in a reply of %u bytes", count,
                   reply.len);
        FreePtpTransactionGetBuffer(reply);
        return QK_ERROR;
    }
    handles->assign(count, 0);
    for (unsigned int i = 0; i < count; ++i)
        (*handles)[i] = Le32(bytes + 4 + 4 * i);
    FreePtpTransactionGetBuffer(reply);
    return QK_OK;
}

QKResult DevicePTP::PTPGetFilesInfo(std::vector<QKFileInfo>* files)
{
    std::vector<unsigned int> handles;
    QKResult result = PTPGetObjectHandles(&handles);
    if (result != QK_OK) {
        QK_LOG_ERR("PTPGetObjectHandles failed");
        return result;
    }
    std::vector<QKFileInfo> gathered(handles.size());
    for (size_t i = 0; i < handles.size(); ++i) {
        DataLen reply;
        if (!PtpTransaction(PTP_OC_GetObjectInfo, PTPmkParams(handles[i]), TRANSACTION_GETDATA, &reply,
                            nullptr, nullptr)) {
            QK_LOG_ERR("PTP_OC_GetObjectInfo failed");
            return QK_ERROR;
        }
        const bool parsed = ParseObjectInfo(reply, handles[i], &gathered[i]);
        FreePtpTransactionGetBuffer(reply);
        if (!parsed)
            return QK_ERROR;
    }
    *files = std::move(gathered);
    return QK_OK;
}

QKResult DevicePTP::PTPUpdateObjectsInfo()
{
    QK_LOG_DEB("PTPUpdateObjectsInfo");
    std::vector<QKFileInfo> listed;
    QKResult result = PTPGetFilesInfo(&listed);
    if (result != QK_OK) {
        QK_LOG_ERR("PTPGetFilesInfo failed");
        return result;
    }
    std::vector<QKFileInfo> kept;
    kept.reserve(listed.size());
    for (const QKFileInfo& file : listed)
        if (IsCatalogued(file))
            kept.push_back(file);

    std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
    // A file is the same file only with the same handle and the same size.
    std::set<std::pair<int, int>> known;
    for (const QKFileInfo& file : catalogue.objects)
        known.insert({file.id, file.size});
    catalogue.latestFileId = -1;
    for (const QKFileInfo& file : kept)
        if (!known.count({file.id, file.size})) {
            catalogue.latestFileId = file.id;
            break;
        }
    QK_LOG_DEB("Latest file ID: %d", catalogue.latestFileId);
    catalogue.objects = std::move(kept);
    return QK_OK;
}

QKResult DevicePTP::GetFileList(QKFileInfo** files, int* count)
{
    std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
    *count = static_cast<int>(catalogue.objects.size());
    if (catalogue.objects.empty()) {
        *files = nullptr;
        return QK_OK;
    }
    QKFileInfo* copy = new QKFileInfo[catalogue.objects.size()];
    std::copy(catalogue.objects.begin(), catalogue.objects.end(), copy);
    *files = copy;
    RegisterPointer(copy, [](void* pointer) { delete[] static_cast<QKFileInfo*>(pointer); });
    return QK_OK;
}
