// SPDX-License-Identifier: MIT
#pragma once
// The camera's PTP responder: takes what arrives on bulk OUT, answers with the
// containers to send on bulk IN. Knows nothing of USB.
//
// Answers come from two tables, each keyed by operation code and, for the
// vendor operation, by sub-command (its first parameter): the camera's own
// behaviour, and answers set by tests, which win. Handlers run without the
// responder's lock held, so they may call back into the camera.

#include "sim/VirtualBus.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace qksim {

class PtpResponder {
public:
    using Containers = std::vector<std::vector<uint8_t>>;

    // The camera's own behaviour.
    void SetBuiltinOperation(uint16_t code, OperationHandler handler);
    void SetBuiltinVendor(uint32_t subCommand, OperationHandler handler);
    // Answers set from outside; an empty handler removes one.
    void SetOperationHandler(uint16_t code, OperationHandler handler);
    void SetVendorHandler(uint32_t subCommand, OperationHandler handler);

    // One bulk OUT transfer; returns the containers to send, in order.
    // A zero-length transfer is a bus-level marker, not a command: no answer.
    // A malformed command container gets an InvalidParameter response.
    Containers Receive(const std::vector<uint8_t>& transfer);

    std::vector<PtpCommand> ReceivedCommands() const;
    void ClearRecords();
    // Commands also go to the process's command trace, under this serial.
    void SetTraceName(std::string serial);

    // The next `count` well-formed commands get GeneralError as response code;
    // with `insteadOfData` that response also takes the place of a data phase.
    void GeneralErrorNext(int count, bool insteadOfData);
    // The next `count` transfers are recorded but get no answer at all, so
    // that raw bytes queued on bulk IN stand in for the reply.
    void SilenceNext(int count);

private:
    struct Decoded {
        PtpCommand command;
        bool wellFormed = false;
    };
    static Decoded Decode(const std::vector<uint8_t>& transfer);
    OperationHandler FindHandler(const PtpCommand& command) const;
    static Containers Encode(const PtpCommand& command, const PtpReply& reply,
                             bool generalError, bool insteadOfData);

    mutable std::mutex mutex;
    std::map<uint16_t, OperationHandler> builtinOps;
    std::map<uint32_t, OperationHandler> builtinVendor;
    std::map<uint16_t, OperationHandler> customOps;
    std::map<uint32_t, OperationHandler> customVendor;
    std::vector<PtpCommand> received;
    int generalErrors = 0;
    bool generalErrorInsteadOfData = false;
    int silent = 0;
    std::string traceName;
};

} // namespace qksim
