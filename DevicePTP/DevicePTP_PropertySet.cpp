// SPDX-License-Identifier: MIT
// Property writing: the request checked against the record and the
// constraints, the cache updated with its one dependent change, and the
// values written to the camera by write kind.

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PropertyRules.h"
#include "DevicePTP/PtpCodes.h"

namespace {

constexpr int modeManual = 2;
constexpr int modeAV = 3;
constexpr int modeTV = 4;
constexpr int myColorsCustom = 11;
constexpr int imageSizeLarge = 0;
constexpr int qualitySuperfine = 0;
constexpr int qualityFine = 1;

bool Has(const CameraConfig& config, PropConstraint constraint)
{
    return config.constraints.count(constraint) != 0;
}

int CachedOrZero(const std::map<QKProp, int>& values, QKProp property)
{
    auto cached = values.find(property);
    return cached == values.end() ? 0 : cached->second;
}

} // namespace

bool IsPropertyAvailableByConstraint(const std::map<QKProp, int>& values, const CameraConfig& config,
                                     QKProp property)
{
    if (Has(config, Constraint_Av) && property == QKProp::Av) {
        const int mode = CachedOrZero(values, QKProp::ShootingMode);
        return mode == modeAV || mode == modeManual;
    }
    if (Has(config, Constraint_Tv) && property == QKProp::Tv) {
        const int mode = CachedOrZero(values, QKProp::ShootingMode);
        return mode == modeTV || mode == modeManual;
    }
    const int number = static_cast<int>(property);
    if (Has(config, Constraint_CustomColor) && number >= static_cast<int>(QKProp::Contrast) &&
        number <= static_cast<int>(QKProp::SkinTone))
        return CachedOrZero(values, QKProp::MyColors) == myColorsCustom;
    return true;
}

bool IsPropertyValueAvailableByConstraint(const std::map<QKProp, int>& values, const CameraConfig& config,
                                          QKProp property, int value)
{
    if (!IsPropertyAvailableByConstraint(values, config, property))
        return false;
    if (Has(config, Constraint_JpegQuality) && property == QKProp::JpegQuality &&
        value == qualitySuperfine && CachedOrZero(values, QKProp::ImageSize) == imageSizeLarge)
        return false;
    return true;
}

std::vector<QKProp> SetPropertyData_ModifyProperies(std::map<QKProp, int>& values,
                                                    const CameraConfig& config, QKProp property,
                                                    int value)
{
    // Only a quality that is known is changed: an unloaded one stays unknown.
    auto quality = values.find(QKProp::JpegQuality);
    if (Has(config, Constraint_JpegQuality) && property == QKProp::ImageSize &&
        value == imageSizeLarge && quality != values.end() && quality->second == qualitySuperfine) {
        quality->second = qualityFine;
        return {QKProp::JpegQuality};
    }
    return {};
}

std::vector<std::pair<QKProp, int>> DevicePTP::GetPropertyValueList_()
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    std::vector<std::pair<QKProp, int>> list;
    for (const auto& [property, config] : cameraConfig.properties)
        for (const ProperyValConfig& v : config.values)
            if (IsPropertyValueAvailableByConstraint(state.propertyValues, cameraConfig, property,
                                                     v.sdkValue))
                list.emplace_back(property, v.sdkValue);
    return list;
}

QKResult DevicePTP::SetPropertyData(int property, int value)
{
    const char* propertyName = "(no name)";
    const char* valueName = "(no name)";
    GetPropertyName(property, &propertyName);
    GetPropertyValName(property, value, &valueName);
    QK_LOG_INF("SetPropertyData: %s = %s", propertyName, valueName);

    const QKProp prop = static_cast<QKProp>(property);
    std::vector<QKProp> dependents;
    bool listChanged = false;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        QKResult guard = GuardCameraState();
        if (guard != QK_OK)
            return guard;
        const std::vector<std::pair<QKProp, int>> before = GetPropertyValueList_();

        auto cached = state.propertyValues.find(prop);
        auto config = cameraConfig.properties.find(prop);
        if (cached == state.propertyValues.end() || config == cameraConfig.properties.end()) {
            QK_LOG_ERR("Unknown property: %d", property);
            return QK_UNKNOWN_PROPERTY;
        }
        bool writable = false;
        IsPropRW(prop, &writable);
        if (!writable) {
            QK_LOG_ERR("failed to set read only property");
            return QK_ERROR;
        }
        if (!FindPropertyValue(config->second, &ProperyValConfig::sdkValue, value)) {
            QK_LOG_ERR("Unsupported property value: %d %d", property, value);
            return QK_UNSUPPORTED_VALUE;
        }
        if (!IsPropertyValueAvailableByConstraint(state.propertyValues, cameraConfig, prop, value)) {
            QK_LOG_ERR("Property set constraint failed: %d %d", property, value);
            return QK_UNSUPPORTED_VALUE;
        }
        if (prop == QKProp::ShootingMode && cached->second == value)
            return QK_OK;

        cached->second = value;
        dependents = SetPropertyData_ModifyProperies(state.propertyValues, cameraConfig, prop, value);
        std::vector<QKProp> writes = dependents;
        writes.push_back(prop);
        for (QKProp each : writes) {
            QKResult result = DoSetProperty(each);
            if (result != QK_OK)
                return result;
        }
        listChanged = GetPropertyValueList_() != before;
    }
    for (QKProp each : dependents) {
        QK_LOG_INF("Property changed: %d", static_cast<int>(each));
        OnPropertyChanged(static_cast<int>(each));
    }
    if (listChanged) {
        QK_LOG_INF("Property list changed");
        OnPropertyListChanged();
    }
    return QK_OK;
}

QKResult DevicePTP::SetPropertyDataByName(int property, std::string valueName)
{
    int value = 0;
    QKResult result = GetProperyNameVal(property, valueName, &value);
    if (result != QK_OK)
        return result;
    return SetPropertyData(property, value);
}

QKResult DevicePTP::PTPSetProperty(QKProp property)
{
    int value = 0;
    {
        std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
        auto cached = state.propertyValues.find(property);
        if (cached == state.propertyValues.end()) {
            QK_LOG_ERR("PTPSetProperty: no value for property %d", static_cast<int>(property));
            return QK_ERROR;
        }
        value = cached->second;
    }
    auto found = cameraConfig.properties.find(property);
    if (found == cameraConfig.properties.end()) {
        QK_LOG_ERR("PTPSetProperty: property %d not on this camera", static_cast<int>(property));
        return QK_ERROR;
    }
    const ProperyConfig& config = found->second;

    if (config.writeKind == WriteKind_FlashPower) {
        if (value < 0 || value > 3) {
            QK_LOG_ERR("unknown FlashPower value");
            return QK_ERROR;
        }
        if (PTPSetPropCase(config.subId1, value == 0 ? 0 : 1) != QK_OK) {
            QK_LOG_ERR("PTP_QKM_SetPropCase failed (FlashPower, FlashAdjustMod)");
            return QK_ERROR;
        }
        if (value != 0 && PTPSetPropCase(config.subId2, value - 1) != QK_OK) {
            QK_LOG_ERR("PTP_QKM_SetPropCase failed (FlashPower, FlashManualOutput)");
            return QK_ERROR;
        }
        return QK_OK;
    }
    if (config.writeKind == WriteKind_ManualFocus) {
        QKResult result = PTPManualFocusEnable(value == 0);
        if (result != QK_OK)
            QK_LOG_ERR("PTPManualFocusEnable failed: %d", value);
        return result;
    }

    if (config.cameraId < 0)
        return QK_OK;
    const ProperyValConfig* record = FindPropertyValue(config, &ProperyValConfig::sdkValue, value);
    if (!record) {
        QK_LOG_ERR("Unsupported property value: %d %d", static_cast<int>(property), value);
        return QK_ERROR;
    }
    const int raw = record->cameraValue;
    if (config.writeKind == WriteKind_CaptureMode) {
        if (!PtpTransaction(PTP_OC_QKM, PTPmkParams(PTP_QKM_SetCaptureMode, static_cast<unsigned int>(raw)),
                            TRANSACTION_NODATA, nullptr, nullptr, nullptr)) {
            QK_LOG_ERR("PTP_QKM_SetCaptureMode failed");
            return QK_ERROR;
        }
        return QK_OK;
    }
    if (PTPSetPropCase(config.cameraId, raw) != QK_OK) {
        QK_LOG_ERR("PTP_QKM_SetPropCase failed: %d %d %d", static_cast<int>(property), config.cameraId, raw);
        return QK_ERROR;
    }
    if (config.writeKind == WriteKind_SubPropery && PTPSetPropCase(config.subId1, raw) != QK_OK) {
        QK_LOG_ERR("PTP_QKM_SetPropCase failed (SubPropery)");
        return QK_ERROR;
    }
    if (config.writeKind == WriteKind_SubPropery2) {
        if (PTPSetPropCase(config.subId1, raw) != QK_OK) {
            QK_LOG_ERR("PTP_QKM_SetPropCase failed (SubPropery2 - 1)");
            return QK_ERROR;
        }
        if (PTPSetPropCase(config.subId2, raw) != QK_OK) {
            QK_LOG_ERR("PTP_QKM_SetPropCase failed (SubPropery2 - 2)");
            return QK_ERROR;
        }
    }
    return QK_OK;
}
