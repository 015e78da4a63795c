// SPDX-License-Identifier: MIT
#include "rig/CameraSteps.h"

#include <strings.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "log/Log.h"
#include "models/PropertyDB.h"
#include "proc/ContProc.h"

namespace qkrig {

namespace {

bool IsNumber(const std::string& text, int* number)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || value < INT_MIN || value > INT_MAX)
        return false;
    *number = static_cast<int>(value);
    return true;
}

} // namespace

// A name wins over a number: "-2" is the value named "-2" even where
// another value's number is -2.
std::optional<int> FindProperty(const std::string& text)
{
    for (const auto& [property, name] : g_PropNames)
        if (strcasecmp(name, text.c_str()) == 0)
            return static_cast<int>(property);
    int number = 0;
    for (const auto& entry : g_PropNames)
        if (IsNumber(text, &number) && number == static_cast<int>(entry.first))
            return number;
    return std::nullopt;
}

std::optional<int> FindValue(int property, const std::string& text)
{
    for (const auto& [key, name] : g_PropValNames)
        if (static_cast<int>(key.first) == property && strcasecmp(name, text.c_str()) == 0)
            return key.second;
    int number = 0;
    for (const auto& entry : g_PropValNames)
        if (static_cast<int>(entry.first.first) == property && IsNumber(text, &number) && number == entry.first.second)
            return number;
    return std::nullopt;
}

std::string PropertyName(int property)
{
    const char* name = nullptr;
    return GetPropertyName(property, &name) == 0 ? name : std::to_string(property);
}

std::string ValueName(int property, int value)
{
    const char* name = nullptr;
    return GetPropertyValName(property, value, &name) == 0 ? name : std::to_string(value);
}

std::vector<std::string> AllPropertyNames()
{
    std::vector<std::string> names;
    for (const auto& entry : g_PropNames)
        names.push_back(entry.second);
    return names;
}

std::vector<std::string> AllValueNames(int property)
{
    std::vector<std::string> names;
    for (const auto& entry : g_PropValNames)
        if (static_cast<int>(entry.first.first) == property)
            names.push_back(entry.second);
    return names;
}

std::string JoinNames(const std::vector<std::string>& names)
{
    std::string joined;
    for (const std::string& name : names)
        joined += (joined.empty() ? "" : ", ") + name;
    return joined;
}

const char* ResultName(QKResult result)
{
    switch (result) {
    case QK_OK: return "QK_OK";
    case QK_ERROR: return "QK_ERROR";
    case QK_NOT_READY: return "QK_NOT_READY";
    case QK_UNKNOWN_PROPERTY: return "QK_UNKNOWN_PROPERTY";
    case QK_UNSUPPORTED_VALUE: return "QK_UNSUPPORTED_VALUE";
    case QK_LOW_BATTERY: return "QK_LOW_BATTERY";
    case QK_OLD_MODULE: return "QK_OLD_MODULE";
    }
    return "QK_ERROR";
}

std::vector<int> CameraProperties(DevicePTP& device)
{
    int* list = nullptr;
    int count = 0;
    std::vector<int> properties;
    if (device.GetPropertyList(&list, &count) != QK_OK)
        return properties;
    properties.assign(list, list + count);
    device.FreePointer(list);
    return properties;
}

std::vector<int> AllowedValues(DevicePTP& device, int property)
{
    QKProp_Desc* desc = nullptr;
    std::vector<int> values;
    if (device.GetPropertyDesc(property, &desc) != QK_OK || !desc)
        return values;
    values.assign(desc->values, desc->values + desc->count);
    device.FreePointer(desc);
    return values;
}

QKResult SetAllowedValue(DevicePTP& device, int property, int value)
{
    const std::vector<int> allowed = AllowedValues(device, property);
    if (std::find(allowed.begin(), allowed.end(), value) == allowed.end()) {
        QK_LOG_ERR("SetAllowedValue: %s = %s is not available now", PropertyName(property).c_str(),
                   ValueName(property, value).c_str());
        return QK_UNSUPPORTED_VALUE;
    }
    return device.SetPropertyData(property, value);
}

QKResult ZoomTo(DevicePTP& device, int position, const std::function<bool()>& stop)
{
    int longest = 0;
    QKResult result = device.GetMaximumZoom(&longest);
    if (result != QK_OK)
        return result;
    if (position < 0 || position > longest) {
        QK_LOG_ERR("ZoomTo: zoom %d is outside 0 to %d", position, longest);
        return QK_UNSUPPORTED_VALUE;
    }
    return ContProc::run(device.PTPSetZoom(position), stop);
}

bool IsPlainFileName(const std::string& name)
{
    if (!name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos)
        return true;
    QK_LOG_ERR("IsPlainFileName: \"%s\" can't stand as a local file name", name.c_str());
    return false;
}

QKResult Catalogue(DevicePTP& device, std::vector<QKFileInfo>* files)
{
    QKResult result = device.PTPUpdateObjectsInfo();
    if (result != QK_OK)
        return result;
    QKFileInfo* list = nullptr;
    int count = 0;
    if ((result = device.GetFileList(&list, &count)) != QK_OK)
        return result;
    files->assign(list, list + count);
    device.FreePointer(list);
    return QK_OK;
}

QKResult DownloadTo(DevicePTP& device, int id, const std::string& path)
{
    const std::string part = path + ".part";
    QKResult result = device.PTPDownloadFile(id, part);
    if (result == QK_OK && std::rename(part.c_str(), path.c_str()) != 0) {
        QK_LOG_ERR("DownloadTo: can't move %s to %s", part.c_str(), path.c_str());
        result = QK_ERROR;
    }
    if (result != QK_OK)
        std::remove(part.c_str());
    return result;
}

QKResult ReadFile(DevicePTP& device, int id, std::string* bytes)
{
    const int fd = memfd_create("qkcam-read", MFD_CLOEXEC);
    if (fd < 0) {
        QK_LOG_ERR("ReadFile: no memory file: %s", std::strerror(errno));
        return QK_ERROR;
    }
    // The engine writes to a path; this one names the memory file.
    QKResult result = device.PTPDownloadFile(id, "/proc/self/fd/" + std::to_string(fd));
    struct stat status {};
    if (result == QK_OK && fstat(fd, &status) == 0) {
        bytes->resize(static_cast<size_t>(status.st_size));
        if (pread(fd, bytes->data(), bytes->size(), 0) != static_cast<ssize_t>(bytes->size())) {
            QK_LOG_ERR("ReadFile: file %d could not be read back", id);
            result = QK_ERROR;
        }
    }
    close(fd);
    return result;
}

QKResult PreviewBmp(DevicePTP& device, std::vector<unsigned char>* bmp)
{
    QKResult result = device.PTPLoadPreviewFrame();
    if (result != QK_OK)
        return result;
    void* frame = nullptr;
    int size = 0;
    if ((result = device.GetPreviewFrame(&frame, &size)) != QK_OK)
        return result;
    const unsigned char* bytes = static_cast<const unsigned char*>(frame);
    bmp->assign(bytes, bytes + size);
    device.FreePointer(frame);
    return QK_OK;
}

QKResult StopVideo(DevicePTP& device, QKFileInfo* file)
{
    const QKResult result = device.PTPUpdateObjectsInfo();
    return result != QK_OK ? result : device.PTPStopVideo(file);
}

QKResult ShootOne(DevicePTP& device, bool direct, QKFileInfo* file, const std::function<bool()>& stop)
{
    auto keep = [file](QKFileInfo shot) { *file = shot; };
    return ContProc::run(direct ? device.PTPShoot_Direct(keep) : device.PTPShoot_Normal(keep), stop);
}

} // namespace qkrig
