// SPDX-License-Identifier: MIT
// The vendor command channel: fetching reply words, the single commands, the
// session, record mode, the module version and the event word.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"

namespace {

#ifndef QK_CHAIN_WAIT_MAX_MS // capped in builds whose camera is a script
#define QK_CHAIN_WAIT_MAX_MS 100
#endif
constexpr auto recModePoll = std::chrono::milliseconds(std::min(100, QK_CHAIN_WAIT_MAX_MS));
constexpr unsigned int shootFinishedBit = 0x02;
constexpr unsigned int zoomFinishedBit = 0x08;

// "%d.%d.%d.%d", missing numbers staying 0.
std::vector<int> ParseVersion(const char* text)
{
    std::vector<int> numbers(4, 0);
    std::sscanf(text, "%d.%d.%d.%d", &numbers[0], &numbers[1], &numbers[2], &numbers[3]);
    return numbers;
}

} // namespace

bool DevicePTP::ReplyWords(const DataLen& reply, unsigned int count, std::vector<int>* words,
                           const char* what)
{
    if (reply.len / 4 < count) {
        QK_LOG_ERR("%s: reply of %u bytes, %u words expected", what, reply.len, count);
        return false;
    }
    words->assign(count, 0);
    std::memcpy(words->data(), reply.data, 4 * count);
    return true;
}

bool DevicePTP::FetchWords(std::vector<unsigned int> params, unsigned int count, std::vector<int>* words,
                           const char* what)
{
    DataLen reply;
    if (!PtpTransaction(PTP_OC_QKM, std::move(params), TRANSACTION_GETDATA, &reply, nullptr, nullptr))
        return false;
    std::vector<int> fetched;
    const bool complete = ReplyWords(reply, count, &fetched, what);
    FreePtpTransactionGetBuffer(reply);
    if (complete)
        *words = std::move(fetched);
    return complete;
}

QKResult DevicePTP::QKMCommand(unsigned int subCommand, const char* failure)
{
    if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(subCommand), TRANSACTION_NODATA, nullptr, nullptr,
                        nullptr)) {
        QK_LOG_ERR("%s", failure);
        return QK_ERROR;
    }
    return QK_OK;
}

QKResult DevicePTP::PTPQKMGet(int subCommand, int wordCount, std::vector<int>* words)
{
    if (wordCount < 0 ||
        !FetchWords(PTPmkParams(static_cast<unsigned int>(subCommand)), static_cast<unsigned int>(wordCount),
                    words, "PTPQKMGet")) {
        QK_LOG_ERR("PTPQKMGet failed: %d", subCommand);
        return QK_ERROR;
    }
    return QK_OK;
}

QKResult DevicePTP::PTPOpenSession()
{
    {
        std::lock_guard<std::mutex> lock(transactionMutex);
        nextTransactionId = 0;
    }
    if (!PtpTransaction(PTP_OC_OpenSession, PTPmkParams(1), TRANSACTION_NODATA, nullptr, nullptr,
                        nullptr)) {
        QK_LOG_ERR("PTP_OC_OpenSession failed");
        return QK_ERROR;
    }
    return QK_OK;
}

QKResult DevicePTP::PTPWaitForRecMode() { return PTPWaitForRecMode(std::chrono::milliseconds::max()); }

QKResult DevicePTP::PTPWaitForRecMode(std::chrono::milliseconds limit)
{
    const auto start = std::chrono::steady_clock::now();
    for (;;) {
        std::vector<int> mode;
        QKResult result = PTPQKMGet(PTP_QKM_GetMode, 1, &mode);
        if (result != QK_OK) {
            QK_LOG_ERR("PTP_QKM_GetMode failed");
            return result;
        }
        if (mode[0] == 1)
            return QK_OK;
        // Compared in milliseconds: the unlimited wait's max() would overflow in finer units.
        const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::steady_clock::now() - start);
        if (waited >= limit) {
            QK_LOG_ERR("PTPWaitForRecMode: no record mode after %lld ms", (long long)limit.count());
            return QK_NOT_READY;
        }
        std::this_thread::sleep_for(recModePoll);
    }
}

QKResult DevicePTP::PTPPowerDown() { return QKMCommand(PTP_QKM_PowerDown, "PTP_QKM_PowerDown failed"); }
QKResult DevicePTP::PTPReset() { return QKMCommand(PTP_QKM_Reset, "PTP_QKM_Reset failed"); }

QKResult DevicePTP::EnableLcd()
{
    return QKMCommand(PTP_QKM_EnableLCD, "EnableKbdAndLcd: PTP_QKM_EnableLCD failed");
}

QKResult DevicePTP::EnableKbdAndLcd()
{
    if (QKMCommand(PTP_QKM_EnableKbd, "EnableKbdAndLcd: PTP_QKM_EnableKbd failed") != QK_OK)
        return QK_ERROR;
    return EnableLcd();
}

QKResult DevicePTP::PTPManualFocusEnable(bool on)
{
    QK_LOG_DEB("PTPManualFocusEnable: %s", on ? "On" : "Off");
    return QKMCommand(on ? PTP_QKM_MfOn : PTP_QKM_MfOff, "PTP_QKM_MfOn failed");
}

QKResult DevicePTP::QKMLoadVersion(const char* requiredVersion)
{
    DataLen reply;
    if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(PTP_QKM_GetQKmVersion), TRANSACTION_GETDATA, &reply,
                        nullptr, nullptr)) {
        QK_LOG_ERR("PTP_QKM_GetQKmVersion failed");
        return QK_ERROR;
    }
    // The text ends at its zero, or at the end of the reply if a camera
    // forgot the zero.
    const char* bytes = static_cast<const char*>(reply.data);
    std::string current(bytes, strnlen(bytes, reply.len));
    FreePtpTransactionGetBuffer(reply);
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        moduleVersion = strToWstr(current);
    }
    if (!requiredVersion)
        return QK_OK;

    std::vector<int> have = ParseVersion(current.c_str());
    std::vector<int> need = ParseVersion(requiredVersion);
    for (size_t i = 0; i < have.size(); ++i) {
        if (have[i] > need[i])
            return QK_OK;
        if (have[i] < need[i]) {
            QK_LOG_ERR("Old QKm version. Current: '%s', required: '%s'", current.c_str(),
                       requiredVersion);
            return QK_OLD_MODULE;
        }
    }
    return QK_OK;
}

std::wstring DevicePTP::GetModuleVersion()
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    return moduleVersion;
}

QKResult DevicePTP::PTPLoadEvents()
{
    std::vector<int> word;
    if (!FetchWords(PTPmkParams(PTP_QKM_GetEvents), 1, &word, "PTP_QKM_GetEvents")) {
        QK_LOG_ERR("PTP_QKM_GetEvents failed");
        return QK_ERROR;
    }
    const unsigned int bits = static_cast<unsigned int>(word[0]);
    // A clear bit changes nothing: each consumer clears its own flag.
    if (bits & shootFinishedBit)
        cameraEvents[SHOOT_FINISHED] = true;
    if (bits & zoomFinishedBit)
        cameraEvents[ZOOM_FINISHED] = true;
    return QK_OK;
}
