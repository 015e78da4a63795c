// SPDX-License-Identifier: MIT
// Property queries, answered from the cache and the record with no camera
// traffic. Arrays handed out stay the object's until FreePointer.

#include <new>

#include "DevicePTP/DevicePTP.h"
#include "DevicePTP/PropertyRules.h"


QKResult DevicePTP::GetPropertyData(int property, int* value)
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    QKResult guard = GuardAll();
    if (guard != QK_OK)
        return guard;
    auto cached = state.propertyValues.find(static_cast<QKProp>(property));
    if (cached == state.propertyValues.end()) {
        QK_LOG_ERR("Unknown property: %d", property);
        return QK_UNKNOWN_PROPERTY;
    }
    *value = cached->second;
    return QK_OK;
}

std::vector<QKProp> DevicePTP::GetPropertyList_()
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    std::vector<QKProp> list;
    for (const auto& entry : cameraConfig.properties)
        if (IsPropertyAvailableByConstraint(state.propertyValues, cameraConfig, entry.first))
            list.push_back(entry.first);
    return list;
}

QKResult DevicePTP::GetPropertyList(int** properties, int* count)
{
    std::vector<QKProp> list = GetPropertyList_();
    int* array = new int[list.size()];
    for (size_t i = 0; i < list.size(); ++i)
        array[i] = static_cast<int>(list[i]);
    *count = static_cast<int>(list.size());
    *properties = array;
    RegisterPointer(array, [](void* p) { delete[] static_cast<int*>(p); });
    return QK_OK;
}

QKResult DevicePTP::GetPropertyDesc(int property, QKProp_Desc** desc)
{
    std::lock_guard<std::recursive_mutex> lock(state.stateMutex);
    QK_LOG_DEB("GetPropertyDesc");
    const QKProp prop = static_cast<QKProp>(property);
    auto found = cameraConfig.properties.find(prop);
    if (found == cameraConfig.properties.end()) {
        QK_LOG_ERR("GetPropertyDesc: Property not found: %d", property);
        return QK_UNKNOWN_PROPERTY;
    }
    std::vector<int> values;
    std::vector<QKProp_ValExtendedInfo> extended;
    for (const ProperyValConfig& v : found->second.values) {
        if (!IsPropertyValueAvailableByConstraint(state.propertyValues, cameraConfig, prop, v.sdkValue))
            continue;
        values.push_back(v.sdkValue);
        if (v.hasExtendedInfo)
            extended.push_back(v.extendedInfo);
    }
    QKProp_Desc* record = new QKProp_Desc;
    record->values = new int[values.size()];
    std::copy(values.begin(), values.end(), record->values);
    if (!extended.empty()) {
        record->extended = new QKProp_ValExtendedInfo[extended.size()];
        std::copy(extended.begin(), extended.end(), record->extended);
    }
    record->count = static_cast<int>(values.size());
    bool writable = false;
    IsPropRW(prop, &writable);
    record->readOnly = writable ? 0 : 1;
    *desc = record;
    RegisterPointer(record, [](void* p) {
        QKProp_Desc* d = static_cast<QKProp_Desc*>(p);
        delete[] d->values;
        delete[] d->extended;
        delete d;
    });
    return QK_OK;
}
