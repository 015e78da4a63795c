// SPDX-License-Identifier: MIT
// Property loading: the value cache filled from the camera, the mode dial and
// the battery followed, and the camera's flag word.

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PropertyRules.h"
#include "DevicePTP/PtpCodes.h"

namespace {

constexpr int batteryPeriod = 50;
constexpr int levelDC = 4;
constexpr int maxBatteryWalk = 1000;
constexpr int manualFocusOff = 1;

const char unsupportedMode[] =
    "Unsupported camera mode: %d. Check camera mode (menu or mode wheel). Use A, P, M, Av or Tv mode.";

} // namespace

QKResult DevicePTP::PTPReadPropety(int caseNumber, int* value)
{
    std::vector<int> word;
    if (!FetchWords(PTPmkParams(PTP_QKM_GetPropCase, static_cast<unsigned int>(caseNumber), 1), 1, &word,
                    "PTP_QKM_GetPropCase")) {
        QK_LOG_ERR("PTP_QKM_GetPropCase failed");
        return QK_ERROR;
    }
    *value = word[0];
    return QK_OK;
}

QKResult DevicePTP::PTPSetPropCase(int caseNumber, int rawValue)
{
    if (!PtpTransaction(PTP_OC_QKM,
                        PTPmkParams(PTP_QKM_SetPropCase, static_cast<unsigned int>(caseNumber),
                                    static_cast<unsigned int>(rawValue)),
                        TRANSACTION_NODATA, nullptr, nullptr, nullptr))
        return QK_ERROR;
    return QK_OK;
}

QKResult DevicePTP::InitialLoadProperties()
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    bool hasBattery = false;
    for (const auto& [property, config] : cameraConfig.properties) {
        if (property == QKProp::BatteryLevel) {
            hasBattery = true;
            continue;
        }
        if (property == QKProp::FlashPower) {
            QKResult result = LoadFlashPowerProp(config);
            if (result != QK_OK) {
                QK_LOG_ERR("LoadFlashPowerProp failed");
                return result;
            }
            continue;
        }
        if (property == QKProp::ManualFocusMode) {
            state.propertyValues[property] = manualFocusOff;
            continue;
        }
        int raw = 0;
        QKResult result = PTPReadPropety(config.cameraId, &raw);
        if (result != QK_OK) {
            QK_LOG_ERR("PTPReadPropety failed");
            return result;
        }
        const ProperyValConfig* value = FindPropertyValue(config, &ProperyValConfig::cameraValue, raw);
        if (!value) {
            if (property == QKProp::ShootingMode)
                QK_LOG_ERR(unsupportedMode, raw);
            else
                QK_LOG_ERR("Unknown property value: %d %d", static_cast<int>(property), raw);
            return QK_ERROR;
        }
        state.propertyValues[property] = value->sdkValue;
    }
    if (hasBattery) {
        QKResult result = ReadBatteryLevel(true);
        if (result != QK_OK) {
            QK_LOG_ERR("ReadBatteryLevel failed");
            return result;
        }
    }
    int zoom = 0;
    QKResult result = PTPGetZoom(&zoom);
    if (result != QK_OK) {
        QK_LOG_ERR("can't load zoom");
        return result;
    }
    state.currentZoom = zoom;
    state.lastSentZoom = -1;
    return QK_OK;
}

QKResult DevicePTP::PTPGetZoom(int* zoom)
{
    const int maxZoom = MaxZoom_();
    if (maxZoom == 0) {
        *zoom = 0;
        return QK_OK;
    }
    std::vector<int> words;
    QKResult result = PTPQKMGet(PTP_QKM_GetZoom, 1, &words);
    if (result != QK_OK) {
        QK_LOG_ERR("PTP_QKM_GetZoom failed");
        return result;
    }
    *zoom = std::min(words[0], maxZoom);
    return QK_OK;
}

QKResult DevicePTP::LoadFlashPowerProp(const ProperyConfig& config)
{
    int adjustMode = 0;
    QKResult result = PTPReadPropety(config.subId1, &adjustMode);
    if (result != QK_OK) {
        QK_LOG_ERR("LoadFlashPowerProp: PTPReadPropety 1 failed");
        return result;
    }
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    if (adjustMode == 0) {
        state.propertyValues[QKProp::FlashPower] = 0;
        return QK_OK;
    }
    if (adjustMode != 1) {
        QK_LOG_ERR("Unknown value of FlashAdjustMode property");
        return QK_ERROR;
    }
    int output = 0;
    result = PTPReadPropety(config.subId2, &output);
    if (result != QK_OK) {
        QK_LOG_ERR("LoadFlashPowerProp: PTPReadPropety 2 failed");
        return result;
    }
    if (output < 0 || output > 2) {
        QK_LOG_ERR("Unknown value of FlashManualOutput property");
        return QK_ERROR;
    }
    state.propertyValues[QKProp::FlashPower] = output + 1;
    return QK_OK;
}

QKResult DevicePTP::ReadCameraMode()
{
    bool changed = false;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        auto cached = state.propertyValues.find(QKProp::ShootingMode);
        auto config = cameraConfig.properties.find(QKProp::ShootingMode);
        if (cached == state.propertyValues.end() || config == cameraConfig.properties.end())
            return QK_OK;
        int raw = 0;
        QKResult result = PTPReadPropety(config->second.cameraId, &raw);
        if (result != QK_OK) {
            QK_LOG_ERR("PTPReadPropety failed");
            return result;
        }
        const ProperyValConfig* value = FindPropertyValue(config->second, &ProperyValConfig::cameraValue, raw);
        if (!value) {
            QK_LOG_ERR(unsupportedMode, raw);
            return QK_ERROR;
        }
        if (value->sdkValue != cached->second) {
            QK_LOG_INF("Camera mode changed to %d", value->sdkValue);
            cached->second = value->sdkValue;
            changed = true;
        }
    }
    if (changed)
        OnPropertyChanged(static_cast<int>(QKProp::ShootingMode));
    return QK_OK;
}

QKResult DevicePTP::ReadBatteryLevel(bool initial)
{
    if (!HasProperty_(QKProp::BatteryLevel))
        return QK_OK;
    std::vector<int> words;
    QKResult result = PTPQKMGet(PTP_QKM_GetVBat, 3, &words);
    if (result != QK_OK) {
        QK_LOG_ERR("PTP_QKM_GetVBat failed");
        return result;
    }
    const int voltage = words[0], full = words[1], empty = words[2];
    std::unique_lock<std::recursive_mutex> filterLock(state.stateMutex);
    if (initial || !state.batteryFilter)
        state.batteryFilter = std::make_shared<ema>(batteryPeriod, voltage);
    state.batteryFilter->add(voltage);

    int level = levelDC;
    if (voltage <= full) {
        const double range = static_cast<double>(full) - empty;
        const double low = range * 0.2 + empty;
        if (voltage < low)
            return QK_LOW_BATTERY;
        const double step = range / 4.0;
        double threshold = low + step;
        level = 0;
        // A flat or inverted range, or an absurd average from a broken
        // camera, must not turn the walk into a hang.
        while (state.batteryFilter->GetVal() > threshold && step > 0 && level < maxBatteryWalk) {
            ++level;
            threshold += step;
        }
    }
    filterLock.unlock();

    bool changed = false;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        int& cached = state.propertyValues[QKProp::BatteryLevel];
        if (initial) {
            cached = level;
        } else if (cached != level) {
            cached = level;
            changed = true;
        }
    }
    if (changed)
        OnPropertyChanged(static_cast<int>(QKProp::BatteryLevel));
    return QK_OK;
}

int DevicePTP::ReadVoltage()
{
    if (!HasProperty_(QKProp::BatteryLevel))
        return 0;
    std::vector<int> words;
    if (PTPQKMGet(PTP_QKM_GetVBat, 3, &words) != QK_OK) {
        QK_LOG_ERR("PTP_QKM_GetVBat failed");
        return 0;
    }
    return words[0];
}

void DevicePTP::LogVoltage(const char* tag)
{
    if (!IsVoltageLogging())
        return;
    const int voltage = ReadVoltage();
    if (tag)
        QK_LOG_INF("Voltage: %d (%s)", voltage, tag);
    else
        QK_LOG_INF("Voltage: %d", voltage);
}

QKResult DevicePTP::SetDefaultSDKFocus()
{
    static const std::pair<int, int> sx160[] = {{8, 1}, {299, 0}, {349, 0}, {145, 4}};
    static const std::pair<int, int> sx170[] = {{8, 1}, {298, 0}, {348, 0}, {145, 2}};
    const std::pair<int, int>* steps = nullptr;
    const std::wstring model = GetCameraId();
    if (model == L"SX160")
        steps = sx160;
    else if (model == L"SX170")
        steps = sx170;
    else
        return QK_OK;
    for (int i = 0; i < 4; ++i) {
        if (PTPSetPropCase(steps[i].first, steps[i].second) != QK_OK) {
            QK_LOG_ERR("SetDefaultSDKFocus failed on %d %d", steps[i].first, steps[i].second);
            return QK_ERROR;
        }
    }
    return QK_OK;
}

QKResult DevicePTP::GetCamFlags(bool* bit0, bool* bit1, bool* bit2)
{
    std::vector<int> word;
    if (!FetchWords(PTPmkParams(PTP_QKM_GetCamProperty), 1, &word, "PTP_QKM_GetCamProperty")) {
        QK_LOG_ERR("PTP_QKM_GetCamProperty failed");
        return QK_ERROR;
    }
    *bit0 = (word[0] & 1) != 0;
    *bit1 = (word[0] & 2) != 0;
    *bit2 = (word[0] & 4) != 0;
    return QK_OK;
}

QKResult DevicePTP::LoadCameraFlags()
{
    bool bit0 = false, bit1 = false, bit2 = false;
    QKResult result = GetCamFlags(&bit0, &bit1, &bit2);
    if (result != QK_OK) {
        QK_LOG_ERR("LoadCameraFlags failed: %d", result);
        return result;
    }
    camFlagBit0 = bit0;
    if (!bit1) {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        cameraConfig.properties.erase(QKProp::ManualFocusMode);
    }
    camFlagBit2 = bit2;
    return QK_OK;
}
