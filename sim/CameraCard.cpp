// SPDX-License-Identifier: MIT
#include "sim/CameraCard.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <strings.h>

#include "sim/PtpContainer.h"
#include "sim/PtpReplies.h"
#include "sim/TestJpeg.h"

namespace qksim {

namespace {

// A PTP string: a count byte (characters with the terminating zero, 0 for an
// empty string), then 16-bit little-endian characters.
void PutString(std::vector<uint8_t>& out, const std::string& text)
{
    if (text.empty()) {
        out.push_back(0);
        return;
    }
    const size_t count = std::min<size_t>(text.size() + 1, 255);
    out.push_back(static_cast<uint8_t>(count));
    for (size_t i = 0; i + 1 < count; ++i)
        PutLe16(out, static_cast<uint8_t>(text[i]));
    PutLe16(out, 0);
}

} // namespace

std::vector<uint8_t> FillerBytes(size_t size, uint8_t seed)
{
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(seed + i * 13 + (i >> 8));
    return bytes;
}

CameraCard::CameraCard()
{
    const uint32_t dcim = AddFolder("DCIM");
    pictureFolder = AddFolder("100QKCAM", dcim);
    AddFile("IMG_0001.JPG", TestPictureJpeg(1));
    AddFile("MVI_0002.MOV", FillerBytes(6000, 2));
    AddFile("IMG_0003.CR2", FillerBytes(9000, 3));
    AddFile("IMG_0004.JPG", TestPictureJpeg(4));
    AddFolder("MISC");
}

void CameraCard::Clear()
{
    std::lock_guard<std::mutex> lock(mutex);
    objects.clear();
    pictureFolder = 0;
    nextNumber = 1;
}

uint16_t CameraCard::FormatOf(const std::string& name)
{
    const size_t dot = name.rfind('.');
    const std::string extension = dot == std::string::npos ? "" : name.substr(dot);
    if (strcasecmp(extension.c_str(), ".jpg") == 0)
        return ptp::OFC_ExifJpeg;
    if (strcasecmp(extension.c_str(), ".mov") == 0)
        return ptp::OFC_QuickTime;
    return ptp::OFC_Undefined;
}

void CameraCard::NoteNumberLocked(const std::string& name)
{
    // IMG_0012.JPG and MVI_0012.MOV use up number 12.
    if (name.size() >= 8 && name[3] == '_') {
        const int number = std::atoi(name.c_str() + 4);
        if (number >= nextNumber)
            nextNumber = number + 1;
    }
}

uint32_t CameraCard::AddLocked(CardObject object)
{
    if (object.handle == 0)
        object.handle = nextHandle++;
    else if (object.handle >= nextHandle)
        nextHandle = object.handle + 1;
    NoteNumberLocked(object.name);
    const uint32_t handle = object.handle;
    objects[handle] = std::move(object);
    return handle;
}

uint32_t CameraCard::AddFolder(const std::string& name, uint32_t parent)
{
    std::lock_guard<std::mutex> lock(mutex);
    CardObject folder;
    folder.parent = parent;
    folder.format = ptp::OFC_Association;
    folder.name = name;
    return AddLocked(std::move(folder));
}

uint32_t CameraCard::AddFile(const std::string& name, std::vector<uint8_t> bytes, uint32_t parent,
                             uint32_t handle)
{
    std::lock_guard<std::mutex> lock(mutex);
    CardObject file;
    file.handle = handle;
    file.parent = parent ? parent : pictureFolder;
    file.format = FormatOf(name);
    file.name = name;
    file.bytes = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
    return AddLocked(std::move(file));
}

uint32_t CameraCard::AddFileLater(const std::string& name, std::vector<uint8_t> bytes,
                                  unsigned delayMs, bool never)
{
    std::lock_guard<std::mutex> lock(mutex);
    CardObject file;
    file.parent = pictureFolder;
    file.format = FormatOf(name);
    file.name = name;
    file.bytes = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
    file.visibleFrom = Clock::now() + std::chrono::milliseconds(delayMs);
    file.neverVisible = never;
    return AddLocked(std::move(file));
}

bool CameraCard::Replace(uint32_t handle, std::vector<uint8_t> bytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = objects.find(handle);
    if (found == objects.end() || found->second.IsFolder())
        return false;
    found->second.bytes = std::make_shared<const std::vector<uint8_t>>(std::move(bytes));
    return true;
}

bool CameraCard::Remove(uint32_t handle)
{
    std::lock_guard<std::mutex> lock(mutex);
    return objects.erase(handle) != 0;
}

bool CameraCard::VisibleLocked(const CardObject& object, Clock::time_point now) const
{
    return !object.neverVisible && now >= object.visibleFrom;
}

const CardObject* CameraCard::FindLocked(uint32_t handle, Clock::time_point now) const
{
    auto found = objects.find(handle);
    if (found == objects.end() || !VisibleLocked(found->second, now))
        return nullptr;
    return &found->second;
}

std::vector<CardObject> CameraCard::Objects() const
{
    std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    std::vector<CardObject> visible;
    for (const auto& entry : objects)
        if (VisibleLocked(entry.second, now))
            visible.push_back(entry.second);
    return visible;
}

bool CameraCard::Has(uint32_t handle) const
{
    std::lock_guard<std::mutex> lock(mutex);
    return FindLocked(handle, Clock::now()) != nullptr;
}

std::vector<uint8_t> CameraCard::Content(uint32_t handle) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = objects.find(handle);
    if (found == objects.end() || !found->second.bytes)
        return {};
    return *found->second.bytes;
}

uint32_t CameraCard::Find(const std::string& name) const
{
    std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    for (const auto& entry : objects)
        if (entry.second.name == name && VisibleLocked(entry.second, now))
            return entry.first;
    return 0;
}

uint32_t CameraCard::PictureFolder() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return pictureFolder;
}

int CameraCard::TakeFileNumber()
{
    std::lock_guard<std::mutex> lock(mutex);
    return nextNumber++;
}

std::string CameraCard::FileName(const char* prefix, int number, const char* extension)
{
    char name[64];
    std::snprintf(name, sizeof(name), "%s%04d%s", prefix, number, extension);
    return name;
}

void CameraCard::FailObjectInfo(uint32_t handle, uint16_t code)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (code)
        infoFaults[handle] = code;
    else
        infoFaults.erase(handle);
}

void CameraCard::BreakObjectAfter(uint32_t handle, uint32_t containerBytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    breaks[handle] = containerBytes;
}

void CameraCard::GeneralErrorAfterData(uint32_t handle, int times)
{
    std::lock_guard<std::mutex> lock(mutex);
    generalErrors[handle] = times;
}

std::vector<uint8_t> CameraCard::ObjectInfo(const CardObject& object)
{
    std::vector<uint8_t> info;
    PutLe32(info, kStorageId);
    PutLe16(info, object.format);
    PutLe16(info, 0); // no protection
    PutLe32(info, object.Size());
    const bool picture = object.format == ptp::OFC_ExifJpeg;
    PutLe16(info, picture ? ptp::OFC_ExifJpeg : 0); // thumbnail format
    PutLe32(info, 0);                                // thumbnail size
    PutLe32(info, picture ? 160 : 0);
    PutLe32(info, picture ? 120 : 0);
    PutLe32(info, 0); // image width and height: not told
    PutLe32(info, 0);
    PutLe32(info, picture ? 24 : 0);
    PutLe32(info, object.parent);
    PutLe16(info, object.IsFolder() ? 1 : 0); // generic folder
    PutLe32(info, 0);
    PutLe32(info, 0); // sequence number
    PutString(info, object.name);
    PutString(info, "20240601T101500");
    PutString(info, "20240601T101500");
    PutString(info, "");
    return info;
}

PtpReply CameraCard::GetStorageIDs(const PtpCommand&) const
{
    std::vector<uint8_t> ids;
    PutLe32(ids, 1);
    PutLe32(ids, kStorageId);
    return DataReply(std::move(ids));
}

PtpReply CameraCard::GetObjectHandles(const PtpCommand& command) const
{
    if (command.params.empty() || (command.params[0] != kStorageId && command.params[0] != 0xFFFFFFFF))
        return RefusalReply(ptp::RC_InvalidStorageID);
    std::lock_guard<std::mutex> lock(mutex);
    const Clock::time_point now = Clock::now();
    std::vector<uint8_t> list;
    PutLe32(list, 0);
    uint32_t count = 0;
    for (const auto& entry : objects)
        if (VisibleLocked(entry.second, now)) {
            PutLe32(list, entry.first);
            ++count;
        }
    list[0] = static_cast<uint8_t>(count);
    list[1] = static_cast<uint8_t>(count >> 8);
    list[2] = static_cast<uint8_t>(count >> 16);
    list[3] = static_cast<uint8_t>(count >> 24);
    return DataReply(std::move(list));
}

PtpReply CameraCard::GetObjectInfo(const PtpCommand& command) const
{
    if (command.params.empty())
        return RefusalReply(ptp::RC_InvalidParameter);
    std::lock_guard<std::mutex> lock(mutex);
    auto fault = infoFaults.find(command.params[0]);
    if (fault != infoFaults.end())
        return RefusalReply(fault->second);
    const CardObject* object = FindLocked(command.params[0], Clock::now());
    if (!object)
        return RefusalReply(ptp::RC_InvalidObjectHandle);
    return DataReply(ObjectInfo(*object));
}

PtpReply CameraCard::GetObject(const PtpCommand& command)
{
    if (command.params.empty())
        return RefusalReply(ptp::RC_InvalidParameter);
    std::shared_ptr<const std::vector<uint8_t>> bytes;
    PtpReply reply;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const uint32_t handle = command.params[0];
        const CardObject* object = FindLocked(handle, Clock::now());
        if (!object || object->IsFolder())
            return RefusalReply(ptp::RC_InvalidObjectHandle);
        bytes = object->bytes;
        auto broken = breaks.find(handle);
        if (broken != breaks.end()) {
            reply.breakDataAfter = broken->second;
            breaks.erase(broken);
        }
        auto failing = generalErrors.find(handle);
        if (failing != generalErrors.end()) {
            reply.responseCode = ptp::RC_GeneralError;
            if (--failing->second <= 0)
                generalErrors.erase(failing);
        }
    }
    // The copy is made outside the lock: files may be large.
    reply.hasData = true;
    reply.data = *bytes;
    return reply;
}

PtpReply CameraCard::DeleteObject(const PtpCommand& command)
{
    if (command.params.empty())
        return RefusalReply(ptp::RC_InvalidParameter);
    std::lock_guard<std::mutex> lock(mutex);
    const uint32_t handle = command.params[0];
    if (!FindLocked(handle, Clock::now()))
        return RefusalReply(ptp::RC_InvalidObjectHandle);
    // A folder goes with everything in it.
    std::vector<uint32_t> doomed{handle};
    for (size_t i = 0; i < doomed.size(); ++i)
        for (const auto& entry : objects)
            if (entry.second.parent == doomed[i])
                doomed.push_back(entry.first);
    for (uint32_t gone : doomed)
        objects.erase(gone);
    return PtpReply{};
}

} // namespace qksim
