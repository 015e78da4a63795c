// SPDX-License-Identifier: MIT
#pragma once
// The usual shapes of a camera's answer, and the way a part of the camera
// hands its handlers to the responder.

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "sim/PtpContainer.h"
#include "sim/VirtualBus.h"

namespace qksim {

// No data, a response code other than OK.
inline PtpReply RefusalReply(uint16_t code)
{
    PtpReply reply;
    reply.responseCode = code;
    return reply;
}

// A data phase of these bytes, then OK.
inline PtpReply DataReply(std::vector<uint8_t> bytes)
{
    PtpReply reply;
    reply.hasData = true;
    reply.data = std::move(bytes);
    return reply;
}

// A data phase of little-endian 32-bit words, then OK.
inline PtpReply WordsReply(const std::vector<int32_t>& words)
{
    PtpReply reply;
    reply.hasData = true;
    for (int32_t w : words)
        PutLe32(reply.data, static_cast<uint32_t>(w));
    return reply;
}

// Wraps `body(part, command)` as a handler that holds `part` weakly: the
// camera owns its parts, the responder only answers for them, and a part
// already gone answers with a general error.
template <typename Part, typename Body>
OperationHandler ForPart(const std::shared_ptr<Part>& part, Body body)
{
    std::weak_ptr<Part> weak = part;
    return [weak, body](const PtpCommand& command) {
        std::shared_ptr<Part> alive = weak.lock();
        return alive ? body(*alive, command) : RefusalReply(ptp::RC_GeneralError);
    };
}

} // namespace qksim
