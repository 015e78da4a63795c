// SPDX-License-Identifier: MIT
// PTP transactions: a command container, at most one data phase from the
// camera, and a response container.

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <thread>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"

#ifndef QK_GENERAL_ERROR_WAIT_MS
#define QK_GENERAL_ERROR_WAIT_MS 300
#endif

namespace {
constexpr int maxAttempts = 3;
constexpr auto generalErrorWait = std::chrono::milliseconds(QK_GENERAL_ERROR_WAIT_MS);
constexpr unsigned int maxChunk = 0x100000;
// Whole replies are allocated before they arrive, so the camera must not be
// able to ask for more than the largest real reply, with room to spare.
constexpr unsigned int maxWholeReply = 64u << 20;
// A late answer to a timed-out transaction is a data and a response
// container; more foreign containers than this means the link is lost.
constexpr int maxForeignContainers = 8;
// The rest of a data container whose transfer broke off is skipped a packet
// at a time, up to the largest reply read whole.
constexpr unsigned int maxSkippedPackets = maxWholeReply / ptpContainerSize;

// Whether a header of another transaction looks like a real container, so
// that its length can be trusted for skipping it whole.
bool PlausibleContainer(const _PTPUSBBulkContainer& header)
{
    if (header.length < ptpHeaderSize)
        return false;
    if (header.type == CONTAINER_DATA)
        return header.code >= 0x1000 && header.code <= 0x9FFF;
    return header.type == CONTAINER_RESPONSE && header.length <= ptpContainerSize &&
           (header.code & 0xF000) == 0x2000;
}
// Data bytes that came in the header's packet; behind them a chunk of
// maxChunk bytes is a whole number of packets.
constexpr unsigned int firstPacketData = 500;
constexpr unsigned int maxCommandParams = 5;
} // namespace

std::vector<unsigned int> DevicePTP::PTPmkParams() { return {}; }
std::vector<unsigned int> DevicePTP::PTPmkParams(unsigned int p1) { return {p1}; }
std::vector<unsigned int> DevicePTP::PTPmkParams(unsigned int p1, unsigned int p2) { return {p1, p2}; }
std::vector<unsigned int> DevicePTP::PTPmkParams(unsigned int p1, unsigned int p2, unsigned int p3)
{
    return {p1, p2, p3};
}

void DevicePTP::FreePtpTransactionGetBuffer(DataLen& buffer)
{
    if (buffer.data)
        delete[] static_cast<unsigned char*>(buffer.data);
}

bool DevicePTP::UsbWrite(DataLen* buffer) { return usbLib->Write(buffer, deviceHandle); }
bool DevicePTP::UsbReadExactly(DataLen* buffer) { return usbLib->Read(buffer, deviceHandle); }

bool DevicePTP::PtpTransaction(unsigned short code, std::vector<unsigned int> params,
                               TRANSACTION_TYPE type, DataLen* result,
                               std::vector<unsigned int>* responseParams,
                               std::function<void(DataLen*)>* chunkCallback)
{
    for (int attempt = 0; attempt < maxAttempts; ++attempt) {
        bool generalError = false;
        if (PtpTransaction_(code, params, type, &generalError, result, responseParams, chunkCallback))
            return true;
        if (!generalError)
            return false;
        QK_LOG_ERR("PTP General Error. Retry %d", attempt);
        std::this_thread::sleep_for(generalErrorWait);
    }
    return false;
}

bool DevicePTP::PtpTransaction_(unsigned short code, std::vector<unsigned int> params,
                                TRANSACTION_TYPE type, bool* generalError, DataLen* result,
                                std::vector<unsigned int>* responseParams,
                                std::function<void(DataLen*)>* chunkCallback)
{
    std::lock_guard<std::mutex> lock(transactionMutex);
    *generalError = false;
    if (!deviceHandle) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("no open device");
        return false;
    }
    if (params.size() > maxCommandParams) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("too many parameters: %u", static_cast<unsigned int>(params.size()));
        return false;
    }

    _PTPUSBBulkContainer command;
    std::memset(&command, 0, sizeof(command));
    command.length = ptpHeaderSize + 4 * static_cast<uint32_t>(params.size());
    command.type = CONTAINER_COMMAND;
    command.code = code;
    command.transId = nextTransactionId++;
    transactionInFlight = command.transId;
    if (!params.empty()) // an empty vector may have no storage at all
        std::memcpy(command.payload, params.data(), 4 * params.size());
    DataLen commandBytes(&command, command.length);
    if (!UsbWrite(&commandBytes)) {
        QK_LOG_ERR("PtpTransaction failed");
        return false;
    }

    DataLen filled; // what the data phase put into *result, freed if the response fails
    if (type == TRANSACTION_GETDATA) {
        if (!PtpDataPhase(code, generalError, result, chunkCallback))
            return false;
        if (result)
            filled = *result;
    }
    auto failAfterData = [&] {
        FreePtpTransactionGetBuffer(filled);
        if (filled.data)
            *result = DataLen();
        return false;
    };

    _PTPUSBBulkContainer response;
    if (!PtpReadContainer(&response)) {
        QK_LOG_ERR("PtpTransaction failed");
        return failAfterData();
    }
    if (response.type != CONTAINER_RESPONSE) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("incorrect response type %d", response.type);
        return failAfterData();
    }
    if (response.code != PTP_RC_OK && response.code != code) {
        if (response.code == PTP_RC_GeneralError) {
            *generalError = true;
            QK_LOG_ERR("PTP_RC_GeneralError");
        }
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("incorrect response code %d", response.code);
        return failAfterData();
    }
    if (responseParams) {
        responseParams->assign(5, 0);
        std::memcpy(responseParams->data(), response.payload, 5 * sizeof(uint32_t));
    }
    return true;
}

bool DevicePTP::PtpDataPhase(unsigned short code, bool* generalError, DataLen* result,
                             std::function<void(DataLen*)>* chunkCallback)
{
    _PTPUSBBulkContainer header;
    std::memset(&header, 0, sizeof(header));
    if (!ReadOwnHeader(&header)) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("GETDATA failed: can't read header");
        return false;
    }
    if (header.type != CONTAINER_DATA) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("GETDATA failed: wrong CONTAINER_DATA");
        if (header.type == CONTAINER_RESPONSE && header.code == PTP_RC_GeneralError) {
            QK_LOG_ERR("PTP_RC_GeneralError");
            *generalError = true;
        }
        return false;
    }
    if (header.length < ptpHeaderSize) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("GETDATA failed: container length %u below the header", header.length);
        return false;
    }
    const unsigned int dataLength = header.length - ptpHeaderSize;
    if (header.code != code) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("GETDATA failed: wrong code");
        SkipRestOfTransaction(dataLength);
        return false;
    }

    if (result && dataLength > maxWholeReply) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("GETDATA failed: reply of %u bytes is over the limit of %u", dataLength, maxWholeReply);
        SkipRestOfTransaction(dataLength);
        return false;
    }
    if (result) {
        DataLen whole;
        if (!ReadDataBlock(dataLength, "tail data stage", &whole))
            return false;
        *result = whole;
        return true;
    }

    if (chunkCallback) {
        unsigned int remaining = dataLength;
        bool first = true;
        while (remaining > 0) {
            unsigned int size = std::min(remaining, maxChunk);
            if (first && size + firstPacketData <= remaining)
                size += firstPacketData;
            first = false;
            DataLen piece;
            if (!ReadDataBlock(size, "tail data stage (with callback)", &piece))
                return false;
            (*chunkCallback)(&piece);
            FreePtpTransactionGetBuffer(piece);
            remaining -= size;
        }
        (*chunkCallback)(nullptr);
        return true;
    }

    QK_LOG_ERR("PtpTransaction: Unknown result destination");
    return false;
}

bool DevicePTP::ReadDataBlock(unsigned int size, const char* stage, DataLen* block)
{
    // The size comes from the camera: an allocation that can't be had is a
    // failed transaction, never an abort.
    unsigned char* data = new (std::nothrow) unsigned char[size];
    if (!data) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("GETDATA failed: can't allocate %u bytes", size);
        return false;
    }
    DataLen read(data, size);
    if (!UsbReadExactly(&read)) {
        QK_LOG_ERR("PtpTransaction failed");
        QK_LOG_ERR("GETDATA failed: %s", stage);
        delete[] data;
        return false;
    }
    *block = read;
    return true;
}

bool DevicePTP::PtpReadContainer(_PTPUSBBulkContainer* container)
{
    std::memset(container, 0, sizeof(*container));
    if (!ReadOwnHeader(container)) {
        QK_LOG_ERR("PtpReadContainer: packed header read failed");
        return false;
    }
    if (container->length > ptpContainerSize) {
        QK_LOG_ERR("PtpReadContainer: packed to long");
        return false;
    }
    if (container->length < ptpHeaderSize) {
        QK_LOG_ERR("PtpReadContainer: packed too short: %u", container->length);
        return false;
    }
    if (container->length == ptpHeaderSize)
        return true;
    DataLen payload(container->payload, container->length - ptpHeaderSize);
    if (!UsbReadExactly(&payload)) {
        QK_LOG_ERR("PtpReadContainer: packed data read failed");
        return false;
    }
    return true;
}

bool DevicePTP::ReadOwnHeader(_PTPUSBBulkContainer* header)
{
    // Every vendor sub-command shares one operation code, so only the
    // transaction id tells a late answer to an earlier, timed-out transaction
    // from the answer to this one.
    int foreign = 0;
    unsigned int skipped = 0;
    for (;;) {
        DataLen headerBytes(header, ptpHeaderSize);
        if (!UsbReadExactly(&headerBytes))
            return false;
        if (header->transId == transactionInFlight)
            break;
        if (PlausibleContainer(*header)) {
            if (++foreign > maxForeignContainers) {
                QK_LOG_ERR("PtpTransaction: out of step with the camera (transaction %u): %d foreign containers",
                           transactionInFlight, foreign);
                return false;
            }
            QK_LOG_ERR("PtpTransaction: discarding a stale container (type %u, transaction %u, waiting for %u)",
                       static_cast<unsigned int>(header->type), header->transId, transactionInFlight);
            if (!DrainData(header->length - ptpHeaderSize))
                return false;
            continue;
        }
        // The middle of a broken transfer: containers start at packets.
        if (skipped == 0)
            QK_LOG_ERR("PtpTransaction: out of step with the camera (transaction %u, got type %u of %u), "
                       "skipping to the next container",
                       transactionInFlight, static_cast<unsigned int>(header->type), header->transId);
        if (++skipped > maxSkippedPackets) {
            QK_LOG_ERR("PtpTransaction: out of step with the camera: no container in %u packets", skipped - 1);
            return false;
        }
        usbLib->DiscardResidue(deviceHandle);
    }
    if (skipped > 0)
        QK_LOG_ERR("PtpTransaction: back in step after %u packets", skipped);
    return true;
}

bool DevicePTP::DrainData(unsigned int size)
{
    if (size == 0)
        return true;
    const unsigned int scratchSize = std::min(size, maxChunk);
    unsigned char* scratch = new (std::nothrow) unsigned char[scratchSize];
    if (!scratch) {
        QK_LOG_ERR("PtpTransaction: can't allocate %u bytes to drain", scratchSize);
        return false;
    }
    bool drained = true;
    for (unsigned int remaining = size; remaining > 0 && drained;) {
        DataLen piece(scratch, std::min(remaining, scratchSize));
        drained = UsbReadExactly(&piece);
        remaining -= piece.len;
    }
    delete[] scratch;
    if (!drained)
        QK_LOG_ERR("PtpTransaction: the camera stopped while %u bytes were drained", size);
    return drained;
}

void DevicePTP::SkipRestOfTransaction(unsigned int dataLength)
{
    // The data nobody wants and the response behind it are read away, so the
    // next transaction starts at its own answer.
    if (!DrainData(dataLength))
        return;
    _PTPUSBBulkContainer response;
    PtpReadContainer(&response);
}
