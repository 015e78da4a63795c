// SPDX-License-Identifier: MIT
// The camera's own diagnostics: the log it writes to its card, and the
// memory statistics read straight out of its RAM.

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PtpCodes.h"

namespace {

constexpr unsigned int statisticsWords = 9;

// Where each model keeps its memory-statistics record.
unsigned int StatisticsAddress(const std::wstring& model)
{
    if (model == L"SX160")
        return 0x10300;
    if (model == L"A1400")
        return 0xEF34;
    if (model == L"A810")
        return 0xD974;
    return 0x10364;
}

} // namespace

QKResult DevicePTP::PTPDownloadCameraLog()
{
    if (QKMCommand(PTP_QKM_GetCamLog, "PTP_QKM_GetCamLog failed") != QK_OK)
        return QK_ERROR;
    QKResult result = PTPUpdateObjectsInfo();
    if (result != QK_OK) {
        QK_LOG_ERR("PTPUpdateObjectsInfo failed");
        return result;
    }
    std::lock_guard<std::mutex> lock(catalogue.objectsMutex);
    const QKFileInfo* logFile = nullptr;
    for (const QKFileInfo& file : catalogue.objects)
        if (wcscasecmp(file.name, L"img_0002.jpg") == 0) {
            logFile = &file;
            break;
        }
    if (!logFile)
        return QK_OK;
    DataLen reply;
    if (!PtpTransaction(PTP_OC_GetObject, PTPmkParams(static_cast<unsigned int>(logFile->id)),
                        TRANSACTION_GETDATA, &reply, nullptr, nullptr)) {
        QK_LOG_ERR("PTP_OC_GetObject failed");
        return QK_ERROR;
    }
    // The file has no terminating zero of its own.
    const char* text = static_cast<const char*>(reply.data);
    const std::string contents(text, strnlen(text, reply.len));
    FreePtpTransactionGetBuffer(reply);
    QK_LOG_INF("camera log:");
    QK_LOG_INF("%s", contents.c_str());
    return QK_OK;
}

void DevicePTP::PTPDebugLogMemory(const char* tag)
{
    if (!IsMemLogging())
        return;
    const unsigned int address = StatisticsAddress(GetCameraId());
    std::vector<int> words;
    if (!FetchWords(PTPmkParams(PTP_BASEMOD_ReadMem, address, 4 * statisticsWords), statisticsWords, &words,
                    "PTP_BASEMOD_ReadMem")) {
        QK_LOG_ERR("PTP_BASEMOD_ReadMem failed");
        return;
    }
    std::string hex;
    for (int word : words) {
        char digits[16];
        std::snprintf(digits, sizeof(digits), "%08x ", static_cast<unsigned int>(word));
        hex += digits;
    }
    QK_LOG_DEB("0x%x memory: %s\n    start address:   %d\n    total size:      %d\n"
               "    allocated peak:  %d\n    allocated size:  %d\n    allocated count: %d\n    hex: %s",
               address, tag ? tag : "", words[1], words[2], words[6], words[7], words[8], hex.c_str());
}
