// SPDX-License-Identifier: MIT
// The standard PTP operations that reach the card.
#include "sim/CameraCard.h"
#include "sim/PtpContainer.h"
#include "sim/PtpResponder.h"

namespace qksim {

void InstallCardOperations(PtpResponder& responder, const std::shared_ptr<CameraCard>& card)
{
    // The camera owns the card; the responder only answers for it.
    std::weak_ptr<CameraCard> weak = card;
    using Operation = PtpReply (CameraCard::*)(const PtpCommand&);
    auto install = [&](uint16_t code, auto operation) {
        responder.SetBuiltinOperation(code, [weak, operation](const PtpCommand& command) {
            std::shared_ptr<CameraCard> c = weak.lock();
            if (!c) {
                PtpReply gone;
                gone.responseCode = ptp::RC_GeneralError;
                return gone;
            }
            return ((*c).*operation)(command);
        });
    };
    using ConstOperation = PtpReply (CameraCard::*)(const PtpCommand&) const;
    install(ptp::OC_GetStorageIDs, static_cast<ConstOperation>(&CameraCard::GetStorageIDs));
    install(ptp::OC_GetObjectHandles, static_cast<ConstOperation>(&CameraCard::GetObjectHandles));
    install(ptp::OC_GetObjectInfo, static_cast<ConstOperation>(&CameraCard::GetObjectInfo));
    install(ptp::OC_GetObject, static_cast<Operation>(&CameraCard::GetObject));
    install(ptp::OC_DeleteObject, static_cast<Operation>(&CameraCard::DeleteObject));
}

} // namespace qksim
