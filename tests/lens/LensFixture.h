// SPDX-License-Identifier: MIT
#pragma once
// A loaded camera whose lens hooks are counted, with the wire read back as
// the vendor sub-commands the camera received.

#include <chrono>
#include <string>
#include <vector>

#include "proc/ContProc.h"
#include "sim/CameraLens.h"
#include "tests/common/ModelCameraTest.h"

namespace qktest {

using Clock = std::chrono::steady_clock;
using qksim::WordsReply;

// The parameters behind each vendor sub-command `sub` the camera received.
inline std::vector<std::vector<uint32_t>> ArgsOf(const qksim::VirtualCamera& camera, uint32_t sub)
{
    std::vector<std::vector<uint32_t>> args;
    for (const VendorCall& call : VendorCalls(camera, sub))
        args.push_back(call.second);
    return args;
}

// The sub-commands in the order the camera got them.
inline std::vector<uint32_t> SubCommands(const qksim::VirtualCamera& camera)
{
    std::vector<uint32_t> subs;
    for (const VendorCall& call : VendorCalls(camera))
        subs.push_back(call.first);
    return subs;
}

// Not supported: an answer the transaction does not retry.
inline qksim::PtpReply Refused() { return qksim::RefusalReply(qksim::ptp::RC_OperationNotSupported); }

class LensTest : public PropertyTest {
protected:
    // Adds the camera, opens and loads it; records and hooks start empty.
    void Open(const std::string& model) { PropertyTest::Open(model, true); }

    // Runs a zoom chain to its end.
    QKResult Zoom(int position) { return ContProc::run(device->PTPSetZoom(position)); }
    int ZoomNow()
    {
        int zoom = -1;
        EXPECT_EQ(device->GetZoom(&zoom), QK_OK);
        return zoom;
    }
    int FocusNow()
    {
        int focus = -12345;
        EXPECT_EQ(device->GetFocus(&focus), QK_OK);
        return focus;
    }

    qksim::CameraLens& Lens() { return camera->Lens(); }
    const std::vector<int32_t>& Row(int zoom) { return Lens().FocusTable().at(static_cast<size_t>(zoom)); }
};

} // namespace qktest
