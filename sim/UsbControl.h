// SPDX-License-Identifier: MIT
#pragma once
// Standard requests on the default control pipe of a virtual device.

#include "sim/UsbDescriptors.h"

#include <cstdint>
#include <set>

namespace qksim {

struct EndpointHalts {
    std::set<uint8_t> halted;
    int clears = 0; // halts cleared by the host, either way
};

// Answers the request in `setup` (8 bytes), writing at most `room` bytes of
// data to `data`. Returns the URB status: 0, or -EPIPE for a request the
// device doesn't support; `filled` is the number of data bytes.
int AnswerControl(const UsbIdentity& id, EndpointHalts& halts, const uint8_t* setup,
                  uint8_t* data, uint32_t room, uint32_t& filled);

} // namespace qksim
