// SPDX-License-Identifier: MIT
#pragma once
// What one fuzz input drives. Its first byte picks a family of operations,
// the second holds flags (logging hooks, camera model), and the rest is the
// camera's side of the conversation (for Transport: reads and transfers).

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "usb/UsbLib.h"

enum class Family : uint8_t {
    Session,     // identity, vendor words, property load, events
    Catalogue,   // storage, handles, ObjectInfo, card cleaning, video
    Download,    // a card file through the chunked data phase, removal
    Preview,     // settings and frames
    DirectShot,  // remote capture pieces, then the file from memory
    NormalShot,  // shot chain and the search for its file
    Diagnostics, // the camera's log file and memory words
    Lens,        // focus replies and the zoom chain
    Transport,   // packet and residue bookkeeping under the libusb transport
    Count,
};

namespace fuzzflags {
constexpr uint8_t memoryLog = 0x01;
constexpr uint8_t voltageLog = 0x02;
constexpr unsigned int modelShift = 2; // two bits: the camera model
} // namespace fuzzflags

inline Family FamilyOf(uint8_t selector)
{
    return static_cast<Family>(selector % static_cast<uint8_t>(Family::Count));
}

// Polls with real waits unless the engine is built for fuzzing.
inline bool FamilyPolls(Family family)
{
    return family == Family::DirectShot || family == Family::NormalShot || family == Family::Lens;
}

// The USB product string of the model that `flags` selects.
std::wstring FamilyProduct(uint8_t flags);

// Runs a camera family (not Transport) against `usb`; downloads go to `path`.
void RunCameraFamily(Family family, uint8_t flags, const std::shared_ptr<UsbLib>& usb, const std::string& path);

// The transport's read bookkeeping, driven by `data`; aborts when a read
// hands out bytes other than the device sent, in another order.
void RunTransport(const uint8_t* data, size_t size);

// A whole input as described above.
void RunInput(const uint8_t* data, size_t size);
