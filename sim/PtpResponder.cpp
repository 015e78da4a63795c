// SPDX-License-Identifier: MIT
#include "sim/PtpResponder.h"

#include <chrono>

#include "sim/CommandTrace.h"
#include "sim/PtpReplies.h"

#include "sim/PtpContainer.h"

#include <utility>

namespace qksim {

namespace {

void Store(std::map<uint16_t, OperationHandler>& table, uint16_t key, OperationHandler handler)
{
    if (handler)
        table[key] = std::move(handler);
    else
        table.erase(key);
}

void Store(std::map<uint32_t, OperationHandler>& table, uint32_t key, OperationHandler handler)
{
    if (handler)
        table[key] = std::move(handler);
    else
        table.erase(key);
}

} // namespace

void PtpResponder::SetBuiltinOperation(uint16_t code, OperationHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex);
    Store(builtinOps, code, std::move(handler));
}

void PtpResponder::SetBuiltinVendor(uint32_t subCommand, OperationHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex);
    Store(builtinVendor, subCommand, std::move(handler));
}

void PtpResponder::SetOperationHandler(uint16_t code, OperationHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex);
    Store(customOps, code, std::move(handler));
}

void PtpResponder::SetVendorHandler(uint32_t subCommand, OperationHandler handler)
{
    std::lock_guard<std::mutex> lock(mutex);
    Store(customVendor, subCommand, std::move(handler));
}

void PtpResponder::SetTraceName(std::string serial)
{
    std::lock_guard<std::mutex> lock(mutex);
    traceName = std::move(serial);
}

std::vector<PtpCommand> PtpResponder::ReceivedCommands() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return received;
}

void PtpResponder::ClearRecords()
{
    std::lock_guard<std::mutex> lock(mutex);
    received.clear();
}

void PtpResponder::GeneralErrorNext(int count, bool insteadOfData)
{
    std::lock_guard<std::mutex> lock(mutex);
    generalErrors = count > 0 ? count : 0;
    generalErrorInsteadOfData = insteadOfData;
}

void PtpResponder::SilenceNext(int count)
{
    std::lock_guard<std::mutex> lock(mutex);
    silent = count > 0 ? count : 0;
}

PtpResponder::Decoded PtpResponder::Decode(const std::vector<uint8_t>& transfer)
{
    Decoded out;
    const size_t size = transfer.size();
    const uint8_t* p = transfer.data();
    // Whatever fields are there get recorded, so that a test can see what a
    // broken command looked like.
    if (size >= 4)
        out.command.length = GetLe32(p);
    if (size >= 6)
        out.command.type = GetLe16(p + 4);
    if (size >= 8)
        out.command.code = GetLe16(p + 6);
    if (size >= ptp::kHeaderSize)
        out.command.transId = GetLe32(p + 8);
    for (size_t at = ptp::kHeaderSize; at + 4 <= size && out.command.params.size() < 8; at += 4)
        out.command.params.push_back(GetLe32(p + at));

    out.wellFormed = size >= ptp::kHeaderSize && size <= ptp::kHeaderSize + 4 * ptp::kMaxParams &&
                     (size - ptp::kHeaderSize) % 4 == 0 && out.command.length == size &&
                     out.command.type == ptp::kCommand;
    return out;
}

OperationHandler PtpResponder::FindHandler(const PtpCommand& command) const
{
    if (command.code == ptp::OC_Vendor && !command.params.empty()) {
        auto custom = customVendor.find(command.params[0]);
        if (custom != customVendor.end())
            return custom->second;
    }
    auto custom = customOps.find(command.code);
    if (custom != customOps.end())
        return custom->second;
    if (command.code == ptp::OC_Vendor) {
        if (command.params.empty())
            return nullptr;
        auto builtin = builtinVendor.find(command.params[0]);
        return builtin != builtinVendor.end() ? builtin->second : nullptr;
    }
    auto builtin = builtinOps.find(command.code);
    return builtin != builtinOps.end() ? builtin->second : nullptr;
}

PtpResponder::Containers PtpResponder::Encode(const PtpCommand& command, const PtpReply& reply,
                                              bool generalError, bool insteadOfData)
{
    Containers out;
    if (reply.hasData && !(generalError && insteadOfData))
        out.push_back(MakeContainer(ptp::kData, command.code, command.transId, reply.data));
    // A broken transfer: part of the data container, then silence.
    if (reply.hasData && reply.breakDataAfter >= 0 && !out.empty()) {
        if (static_cast<uint64_t>(reply.breakDataAfter) < out.back().size())
            out.back().resize(static_cast<size_t>(reply.breakDataAfter));
        return out;
    }
    const uint16_t code = generalError ? ptp::RC_GeneralError : reply.responseCode;
    out.push_back(MakeParamContainer(ptp::kResponse, code, command.transId, reply.responseParams));
    return out;
}

PtpResponder::Containers PtpResponder::Receive(const std::vector<uint8_t>& transfer)
{
    if (transfer.empty())
        return {};
    const int64_t arrival = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::steady_clock::now().time_since_epoch())
                                .count();
    Decoded decoded = Decode(transfer);
    decoded.command.arrivalNs = arrival;
    OperationHandler handler;
    bool generalError = false;
    bool insteadOfData = false;
    {
        std::lock_guard<std::mutex> lock(mutex);
        received.push_back(decoded.command);
        if (!traceName.empty())
            CommandTrace::Write(traceName, decoded.command);
        if (silent > 0) {
            --silent;
            return {};
        }
        if (!decoded.wellFormed)
            return Encode(decoded.command, RefusalReply(ptp::RC_InvalidParameter), false, false);
        handler = FindHandler(decoded.command);
        if (generalErrors > 0) {
            --generalErrors;
            generalError = true;
            insteadOfData = generalErrorInsteadOfData;
        }
    }
    PtpReply reply = handler ? handler(decoded.command) : RefusalReply(ptp::RC_OperationNotSupported);
    return Encode(decoded.command, reply, generalError, insteadOfData);
}

} // namespace qksim
