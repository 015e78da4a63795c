// SPDX-License-Identifier: MIT
#include "sim/CameraOperations.h"

#include "sim/PtpContainer.h"
#include "sim/PtpResponder.h"

namespace qksim {

std::vector<uint8_t> SerialNumberData(const std::string& serial)
{
    std::vector<uint8_t> data;
    for (size_t i = 0; i < serial.size(); ++i) {
        data.push_back(static_cast<uint8_t>(serial[i]));
        if (i + 1 < serial.size())
            data.push_back(0);
    }
    return data;
}

void InstallSessionOperations(PtpResponder& responder, const CameraSetup& setup)
{
    responder.SetBuiltinOperation(ptp::OC_OpenSession, [](const PtpCommand&) { return PtpReply{}; });

    const std::vector<uint8_t> serial = SerialNumberData(setup.serial);
    responder.SetBuiltinVendor(ptp::QKM_GetSerialNumber, [serial](const PtpCommand&) {
        PtpReply reply;
        reply.hasData = true;
        reply.data = serial;
        return reply;
    });
}

void InstallCameraOperations(PtpResponder& responder, const CameraSetup& setup)
{
    InstallSessionOperations(responder, setup);
}

} // namespace qksim
