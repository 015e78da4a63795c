// SPDX-License-Identifier: MIT
#pragma once
// The memory card of a virtual camera: one storage holding a DCIM-like tree
// of folders and files, as PTP shows it (a flat list of object handles, an
// ObjectInfo data set per object, the bytes of each file), with the faults a
// card and its camera can produce.
//
// Handlers on the bus thread and tests on their own threads share it, so all
// of it is behind one lock. Files that "appear later" carry a time from which
// listings show them; nothing here waits or sleeps.

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "sim/VirtualBus.h"

namespace qksim {

namespace ptp {
constexpr uint16_t RC_InvalidStorageID = 0x2008;
constexpr uint16_t RC_InvalidObjectHandle = 0x2009;
constexpr uint16_t RC_AccessDenied = 0x200F;
constexpr uint16_t RC_DeviceBusy = 0x2019;

constexpr uint16_t OFC_Undefined = 0x3000;
constexpr uint16_t OFC_Association = 0x3001;
constexpr uint16_t OFC_QuickTime = 0x300D;
constexpr uint16_t OFC_ExifJpeg = 0x3801;
} // namespace ptp

struct CardObject {
    uint32_t handle = 0;
    uint32_t parent = 0; // 0: the root of the storage
    uint16_t format = ptp::OFC_Undefined;
    std::string name;
    std::shared_ptr<const std::vector<uint8_t>> bytes; // null for a folder
    std::chrono::steady_clock::time_point visibleFrom{};
    bool neverVisible = false;

    bool IsFolder() const { return format == ptp::OFC_Association; }
    uint32_t Size() const { return bytes ? static_cast<uint32_t>(bytes->size()) : 0; }
};

class CameraCard {
public:
    static constexpr uint32_t kStorageId = 0x00010001;
    using Clock = std::chrono::steady_clock;

    // A fresh card: DCIM/100QKCAM with IMG_0001.JPG, MVI_0002.MOV,
    // IMG_0003.CR2 and IMG_0004.JPG, and an empty MISC folder.
    CameraCard();

    // Empties the card; the file counter starts again at 1.
    void Clear();
    uint32_t AddFolder(const std::string& name, uint32_t parent = 0);
    // Into the picture folder unless `parent` names another; the format
    // follows the extension. `handle` 0 takes the next free one; another
    // value reuses a handle, as cameras do after a deletion.
    uint32_t AddFile(const std::string& name, std::vector<uint8_t> bytes, uint32_t parent = 0,
                     uint32_t handle = 0);
    // The same file, hidden from listings for `delayMs`, or for good.
    uint32_t AddFileLater(const std::string& name, std::vector<uint8_t> bytes, unsigned delayMs,
                          bool never = false);
    // New contents under the same handle.
    bool Replace(uint32_t handle, std::vector<uint8_t> bytes);
    bool Remove(uint32_t handle);

    // What a listing shows now, in handle order.
    std::vector<CardObject> Objects() const;
    bool Has(uint32_t handle) const;
    // The file's bytes; empty if there is no such file.
    std::vector<uint8_t> Content(uint32_t handle) const;
    // First visible object of that name (exact), 0 if none.
    uint32_t Find(const std::string& name) const;
    uint32_t PictureFolder() const;

    // Numbers for IMG_nnnn.JPG and MVI_nnnn.MOV, shared as a camera shares them.
    int TakeFileNumber();
    // "IMG_0012.JPG" for ("IMG_", 12, ".JPG").
    static std::string FileName(const char* prefix, int number, const char* extension);

    // Faults. GetObjectInfo of `handle` answers `code` (until cleared with 0).
    void FailObjectInfo(uint32_t handle, uint16_t code);
    // The next GetObject of `handle` sends that many bytes of its data
    // container (header included) and then falls silent.
    void BreakObjectAfter(uint32_t handle, uint32_t containerBytes);
    // The next `times` GetObject of `handle` deliver the whole data, then
    // answer GeneralError instead of OK.
    void GeneralErrorAfterData(uint32_t handle, int times);

    // The PTP operations, as the handlers call them.
    PtpReply GetStorageIDs(const PtpCommand& command) const;
    PtpReply GetObjectHandles(const PtpCommand& command) const;
    PtpReply GetObjectInfo(const PtpCommand& command) const;
    PtpReply GetObject(const PtpCommand& command);
    PtpReply DeleteObject(const PtpCommand& command);

    // The ObjectInfo data set of one object.
    static std::vector<uint8_t> ObjectInfo(const CardObject& object);

private:
    static uint16_t FormatOf(const std::string& name);
    bool VisibleLocked(const CardObject& object, Clock::time_point now) const;
    const CardObject* FindLocked(uint32_t handle, Clock::time_point now) const;
    uint32_t AddLocked(CardObject object);
    void NoteNumberLocked(const std::string& name);

    mutable std::mutex mutex;
    std::map<uint32_t, CardObject> objects;
    uint32_t nextHandle = 0x100;
    uint32_t pictureFolder = 0;
    int nextNumber = 1;
    std::map<uint32_t, uint16_t> infoFaults;
    std::map<uint32_t, uint32_t> breaks;
    std::map<uint32_t, int> generalErrors;
};

// Bytes that stand in for a movie or a raw file: only their size and their
// sameness matter to a host.
std::vector<uint8_t> FillerBytes(size_t size, uint8_t seed);

class PtpResponder;

// GetStorageIDs, GetObjectHandles, GetObjectInfo, GetObject, DeleteObject.
void InstallCardOperations(PtpResponder& responder, const std::shared_ptr<CameraCard>& card);

} // namespace qksim
