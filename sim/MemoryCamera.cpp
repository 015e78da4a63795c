// SPDX-License-Identifier: MIT
#include "sim/MemoryCamera.h"

#include <algorithm>
#include <cstring>

#include "sim/CameraCard.h"
#include "sim/PtpContainer.h"

namespace qksim {

MemoryCamera::MemoryCamera(const std::string& model_) : UsbLib(UsbLib::EmptyNotify), model(model_) {}

std::set<std::wstring> MemoryCamera::GetAllConnectedDevicePaths() { return {Path()}; }

void* MemoryCamera::OpenDevice(std::wstring path) { return path == Path() ? this : nullptr; }

void MemoryCamera::CloseDevice(void*) {}

std::wstring MemoryCamera::GetDeviceName(void*) { return strToWstr("QK Memory Camera " + model); }

void MemoryCamera::Clear()
{
    std::lock_guard<std::mutex> lock(mutex);
    files.clear();
}

uint32_t MemoryCamera::AddFile(const std::string& name, Bytes bytes)
{
    std::lock_guard<std::mutex> lock(mutex);
    files.push_back({nextHandle, name, std::move(bytes)});
    return nextHandle++;
}

void MemoryCamera::GeneralErrorAfterData(int times)
{
    std::lock_guard<std::mutex> lock(mutex);
    generalErrors = times;
}

std::vector<uint16_t> MemoryCamera::Commands() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return commands;
}

void MemoryCamera::QueueOwned(std::vector<uint8_t> bytes)
{
    Segment segment;
    segment.owned = std::move(bytes);
    segment.data = segment.owned.data();
    segment.length = segment.owned.size();
    // A moved vector keeps its buffer, so `data` stays valid in the queue.
    pending.push_back(std::move(segment));
}

void MemoryCamera::QueueContainer(uint16_t type, uint16_t code, uint32_t transId,
                                  const std::vector<uint8_t>& payload)
{
    QueueOwned(MakeContainer(type, code, transId, payload));
}

void MemoryCamera::Respond(uint16_t code, uint32_t transId, const std::vector<uint32_t>& params)
{
    QueueOwned(MakeParamContainer(ptp::kResponse, code, transId, params));
}

bool MemoryCamera::Write(DataLen* buffer, void*)
{
    if (!buffer || !buffer->data || buffer->len < ptp::kHeaderSize)
        return false;
    const uint8_t* bytes = static_cast<const uint8_t*>(buffer->data);
    const uint16_t code = GetLe16(bytes + 6);
    const uint32_t transId = GetLe32(bytes + 8);
    std::vector<uint32_t> params;
    for (uint32_t at = ptp::kHeaderSize; at + 4 <= buffer->len; at += 4)
        params.push_back(GetLe32(bytes + at));
    const uint32_t first = params.empty() ? 0 : params[0];

    std::lock_guard<std::mutex> lock(mutex);
    commands.push_back(code);
    auto find = [&](uint32_t handle) {
        return std::find_if(files.begin(), files.end(), [handle](const File& f) { return f.handle == handle; });
    };
    switch (code) {
    case ptp::OC_GetStorageIDs: {
        std::vector<uint8_t> ids;
        PutLe32(ids, 1);
        PutLe32(ids, CameraCard::kStorageId);
        QueueContainer(ptp::kData, code, transId, ids);
        break;
    }
    case ptp::OC_GetObjectHandles: {
        std::vector<uint8_t> list;
        PutLe32(list, static_cast<uint32_t>(files.size()));
        for (const File& file : files)
            PutLe32(list, file.handle);
        QueueContainer(ptp::kData, code, transId, list);
        break;
    }
    case ptp::OC_GetObjectInfo: {
        auto file = find(first);
        if (file == files.end()) {
            Respond(ptp::RC_InvalidObjectHandle, transId, {});
            return true;
        }
        CardObject object;
        object.handle = file->handle;
        object.format = ptp::OFC_ExifJpeg;
        object.name = file->name;
        object.bytes = file->bytes;
        QueueContainer(ptp::kData, code, transId, CameraCard::ObjectInfo(object));
        break;
    }
    case ptp::OC_GetObject: {
        auto file = find(first);
        if (file == files.end()) {
            Respond(ptp::RC_InvalidObjectHandle, transId, {});
            return true;
        }
        std::vector<uint8_t> header;
        PutLe32(header, static_cast<uint32_t>(ptp::kHeaderSize + file->bytes->size()));
        PutLe16(header, ptp::kData);
        PutLe16(header, code);
        PutLe32(header, transId);
        QueueOwned(std::move(header));
        Segment data;
        data.shared = file->bytes;
        data.data = file->bytes->data();
        data.length = file->bytes->size();
        pending.push_back(std::move(data));
        if (generalErrors > 0) {
            --generalErrors;
            Respond(ptp::RC_GeneralError, transId, {});
            return true;
        }
        break;
    }
    case ptp::OC_DeleteObject: {
        auto file = find(first);
        if (file == files.end()) {
            Respond(ptp::RC_InvalidObjectHandle, transId, {});
            return true;
        }
        files.erase(file);
        break;
    }
    default:
        Respond(ptp::RC_OperationNotSupported, transId, {});
        return true;
    }
    Respond(ptp::RC_OK, transId, {});
    return true;
}

bool MemoryCamera::Read(DataLen* buffer, void*)
{
    if (!buffer || (!buffer->data && buffer->len))
        return false;
    std::lock_guard<std::mutex> lock(mutex);
    uint8_t* out = static_cast<uint8_t*>(buffer->data);
    size_t wanted = buffer->len;
    while (wanted > 0 && !pending.empty()) {
        Segment& front = pending.front();
        const size_t take = std::min(wanted, front.length - frontOffset);
        std::memcpy(out, front.data + frontOffset, take);
        out += take;
        wanted -= take;
        frontOffset += take;
        if (frontOffset == front.length) {
            pending.pop_front();
            frontOffset = 0;
        }
    }
    return wanted == 0;
}

} // namespace qksim
