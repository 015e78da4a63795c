// SPDX-License-Identifier: MIT
#pragma once
// Whole-buffer reads from a bulk-in endpoint. A read of less than a packet
// still asks the device for a whole packet, and what was not asked for stays
// behind as the residue for the next read. Apart from libusb, so that this
// bookkeeping can be driven without a device.

#include <vector>

class BulkInEndpoint {
public:
    virtual ~BulkInEndpoint() = default;
    // One transfer of at most `len` bytes: a libusb result code, and in
    // `*received` what arrived (an error may come with data).
    virtual int Transfer(unsigned char* data, unsigned int len, int* received) = 0;
    // Called after each stall.
    virtual void ClearHalt() = 0;
};

namespace bulkin {

constexpr unsigned int packetSize = 512;
constexpr unsigned int maxPiece = 0x100000;

// Fills data[0, len) from `residue`, then from the endpoint; false (logged)
// when the endpoint fails. `maxRetries` bounds the transfers after stalls.
bool ReadWhole(BulkInEndpoint& endpoint, std::vector<unsigned char>& residue, unsigned char* data,
               unsigned int len, int maxRetries);

} // namespace bulkin
