// SPDX-License-Identifier: MIT
#pragma once
// A camera card behind an in-memory transport: the engine's UsbLib served
// straight from memory, with no bus, so that measurements see the engine's
// own cost. It answers the card operations only (storage, handles,
// ObjectInfo, GetObject, DeleteObject); file data streams from the buffers
// the files were added with, without a copy of its own.

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "usb/UsbLib.h"

namespace qksim {

class MemoryCamera : public UsbLib {
public:
    using Bytes = std::shared_ptr<const std::vector<uint8_t>>;

    // The product string names `model`, so the engine finds its record.
    explicit MemoryCamera(const std::string& model = "SX160");

    std::set<std::wstring> GetAllConnectedDevicePaths() override;
    void* OpenDevice(std::wstring path) override;
    void CloseDevice(void* handle) override;
    std::wstring GetDeviceName(void* handle) override;
    bool Read(DataLen* buffer, void* handle) override;
    bool Write(DataLen* buffer, void* handle) override;

    static std::wstring Path() { return L"memory"; }

    void Clear();
    uint32_t AddFile(const std::string& name, Bytes bytes);
    // The next `times` GetObject answer GeneralError after their data.
    void GeneralErrorAfterData(int times);
    // Commands received, by operation code.
    std::vector<uint16_t> Commands() const;

private:
    struct File {
        uint32_t handle;
        std::string name;
        Bytes bytes;
    };
    // What waits on bulk IN: owned bytes, or a view into a file's buffer.
    struct Segment {
        std::vector<uint8_t> owned;
        Bytes shared;
        const uint8_t* data = nullptr;
        size_t length = 0;
    };
    void QueueOwned(std::vector<uint8_t> bytes);
    void QueueContainer(uint16_t type, uint16_t code, uint32_t transId, const std::vector<uint8_t>& payload);
    void Respond(uint16_t code, uint32_t transId, const std::vector<uint32_t>& params);

    const std::string model;
    mutable std::mutex mutex;
    std::vector<File> files;
    uint32_t nextHandle = 1;
    int generalErrors = 0;
    std::vector<uint16_t> commands;
    std::deque<Segment> pending;
    size_t frontOffset = 0;
};

} // namespace qksim
