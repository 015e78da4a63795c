// SPDX-License-Identifier: MIT
#pragma once
// What a virtual camera answers on its own, before any test steps in. Each
// area of the camera's behaviour installs its handlers into the responder.

#include "sim/VirtualBus.h"

namespace qksim {

class PtpResponder;

// Session handling and identity: OpenSession, the serial number.
void InstallSessionOperations(PtpResponder& responder, const CameraSetup& setup);

// Everything a camera of this setup answers.
void InstallCameraOperations(PtpResponder& responder, const CameraSetup& setup);

// The serial number as the camera's module sends it: each character followed
// by a zero byte, except the last.
std::vector<uint8_t> SerialNumberData(const std::string& serial);

} // namespace qksim
