// SPDX-License-Identifier: MIT
// The soak's faults: what each kind does to the virtual camera, and how
// the camera is left in order after one.


#include "bench/SoakCamera.h"
#include "sim/CameraSettings.h"
#include "sim/CameraShutter.h"
#include "sim/PtpContainer.h"

namespace soak {

namespace {

// Fault weights. Time-outs and huge announced lengths each cost a whole USB
// time-out (5 s), so they are rarer than the faults that fail at once.
struct Weight {
    Fault fault;
    int weight;
};
constexpr Weight faultWeights[] = {
    {Fault::Stall, 8},  {Fault::GeneralError, 6}, {Fault::Malformed, 8},
    {Fault::HugeLength, 2}, {Fault::TimeOut, 2},  {Fault::Unplug, 1},
};

constexpr uint16_t dataType = 2, responseType = 3, vendorCode = 0x9999, okCode = 0x2001;

} // namespace

bool WritesRawReply(Fault fault) { return fault == Fault::Malformed || fault == Fault::HugeLength; }

Fault CameraWorker::PickFault()
{
    int total = 0;
    for (const Weight& w : faultWeights)
        total += w.weight;
    int at = Pick(total);
    for (const Weight& w : faultWeights) {
        if (at < w.weight)
            return w.fault;
        at -= w.weight;
    }
    return Fault::Stall;
}

void CameraWorker::Arm(Fault fault, uint64_t draw)
{
    // Its own generator: a midway fault is armed from another thread.
    std::mt19937_64 local(draw);
    auto pick = [&local](int count) { return std::uniform_int_distribution<int>(0, count - 1)(local); };
    const uint8_t endpoint = pick(2) ? 0x81 : 0x02;
    switch (fault) {
    case Fault::Stall:
        camera->StallNext(endpoint, 1 + pick(3));
        break;
    case Fault::TimeOut:
        camera->TimeOutNext(endpoint, 1);
        break;
    case Fault::GeneralError:
        camera->GeneralErrorNext(1 + pick(3), pick(2) == 0);
        break;
    case Fault::Malformed: {
        // The camera's own answer is held back; these bytes stand for it.
        camera->SilenceNext(1);
        std::vector<uint8_t> raw;
        switch (pick(3)) {
        case 0: // a response shorter than its own header
            raw = qksim::MakeRawHeader(8, responseType, okCode, nextTransId, 12);
            break;
        case 1: // a container of no known type
            raw = qksim::MakeRawHeader(12, 9, okCode, nextTransId, 12);
            break;
        default: { // a reply of two bytes where words or a file belong
            raw = qksim::MakeRawHeader(14, dataType, vendorCode, nextTransId, 14);
            const std::vector<uint8_t> response = qksim::MakeRawHeader(12, responseType, okCode, nextTransId, 12);
            raw.insert(raw.end(), response.begin(), response.end());
        }
        }
        camera->QueueRawIn(raw);
        break;
    }
    case Fault::HugeLength:
        camera->SilenceNext(1);
        camera->QueueRawIn(qksim::MakeRawHeader(0xFFFFFFF0u, dataType, vendorCode, nextTransId, 12));
        break;
    case Fault::Unplug:
        camera->Unplug();
        break;
    default:
        break;
    }
}

void CameraWorker::Disarm()
{
    for (uint8_t endpoint : {uint8_t(0x81), uint8_t(0x02)}) {
        camera->StallNext(endpoint, 0);
        camera->TimeOutNext(endpoint, 0);
    }
    camera->GeneralErrorNext(0);
    camera->SilenceNext(0);
}

void CameraWorker::Settle()
{
    // What a real camera does on its own after a broken exchange: a shot in
    // progress finishes, a remote capture nobody fetches is given up.
    Sleep(30);
    camera->Settings().TakeEvents();
    camera->Shutter().AbortRemoteCapture();
}

} // namespace soak
