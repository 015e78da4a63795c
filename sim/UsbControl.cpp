// SPDX-License-Identifier: MIT
#include "sim/UsbControl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace qksim {

namespace {

constexpr uint8_t kGetStatus = 0;
constexpr uint8_t kClearFeature = 1;
constexpr uint8_t kGetDescriptor = 6;
constexpr uint16_t kEndpointHalt = 0;

int Send(const std::vector<uint8_t>& answer, uint16_t wLength, uint8_t* data, uint32_t room,
         uint32_t& filled)
{
    if (answer.empty())
        return -EPIPE;
    filled = static_cast<uint32_t>(std::min<size_t>({answer.size(), wLength, room}));
    std::memcpy(data, answer.data(), filled);
    return 0;
}

} // namespace

int AnswerControl(const UsbIdentity& id, EndpointHalts& halts, const uint8_t* setup,
                  uint8_t* data, uint32_t room, uint32_t& filled)
{
    const uint8_t requestType = setup[0];
    const uint8_t request = setup[1];
    const uint16_t value = static_cast<uint16_t>(setup[2] | (setup[3] << 8));
    const uint16_t index = static_cast<uint16_t>(setup[4] | (setup[5] << 8));
    const uint16_t length = static_cast<uint16_t>(setup[6] | (setup[7] << 8));
    filled = 0;

    if (requestType == 0x80 && request == kGetDescriptor) {
        const uint8_t type = static_cast<uint8_t>(value >> 8);
        const uint8_t number = static_cast<uint8_t>(value);
        switch (type) {
        case 1:
            return Send(DeviceDescriptor(id), length, data, room, filled);
        case 2:
            return number == 0 ? Send(ConfigurationDescriptor(id), length, data, room, filled) : -EPIPE;
        case 3:
            return Send(StringDescriptor(id, number), length, data, room, filled);
        default:
            return -EPIPE;
        }
    }
    if ((requestType & 0xE0) == 0x80 && request == kGetStatus) {
        std::vector<uint8_t> status{0, 0};
        switch (requestType & 0x1F) {
        case 0:
            status[0] = 1; // self-powered
            break;
        case 1:
            if (index != 0)
                return -EPIPE;
            break;
        case 2:
            status[0] = halts.halted.count(static_cast<uint8_t>(index)) ? 1 : 0;
            break;
        default:
            return -EPIPE;
        }
        return Send(status, length, data, room, filled);
    }
    if (requestType == 0x02 && request == kClearFeature && value == kEndpointHalt) {
        halts.halted.erase(static_cast<uint8_t>(index));
        ++halts.clears;
        return 0;
    }
    return -EPIPE;
}

} // namespace qksim
