// SPDX-License-Identifier: MIT
#include "usb/BulkIn.h"

#include <libusb.h>

#include <algorithm>
#include <cstring>

#include "log/Log.h"

namespace bulkin {

bool ReadWhole(BulkInEndpoint& endpoint, std::vector<unsigned char>& residue, unsigned char* data,
               unsigned int len, int maxRetries)
{
    // Small reads go through the residue.
    for (;;) {
        if (!residue.empty()) {
            if (residue.size() >= len) {
                std::memcpy(data, residue.data(), len);
                residue.erase(residue.begin(), residue.begin() + len);
                return true;
            }
            std::memcpy(data, residue.data(), residue.size());
            data += residue.size();
            len -= static_cast<unsigned int>(residue.size());
            residue.clear();
        }
        if (len >= packetSize)
            break;
        if (len == 0)
            return true;
        unsigned char packet[packetSize];
        int received = 0;
        int rc = 0;
        int transfers = 0;
        do {
            rc = endpoint.Transfer(packet, packetSize, &received);
            ++transfers;
            if (rc == LIBUSB_ERROR_PIPE)
                endpoint.ClearHalt();
        } while (rc == LIBUSB_ERROR_PIPE && transfers < maxRetries);
        if (rc != 0) {
            QK_LOG_ERR("%s: %d", "Usb read to buffer failed", rc);
            return false;
        }
        residue.assign(packet, packet + std::min<int>(std::max(received, 0), packetSize));
    }

    // Large reads go straight into the caller's buffer, a piece at a time.
    int stalls = 0;
    int rc = 0;
    while (len > 0) {
        int received = 0;
        rc = endpoint.Transfer(data, std::min(len, maxPiece), &received);
        if (received <= 0) {
            QK_LOG_ERR("libusb_bulk_transfer: size == 0");
            return false;
        }
        if (rc == LIBUSB_ERROR_PIPE) {
            endpoint.ClearHalt();
            ++stalls;
        }
        data += received;
        len -= static_cast<unsigned int>(received);
        if (rc == LIBUSB_ERROR_PIPE && stalls > maxRetries)
            break;
    }
    if (rc != 0) {
        QK_LOG_ERR("%s: %d", "Usb read failed", rc);
        return false;
    }
    return true;
}

} // namespace bulkin
