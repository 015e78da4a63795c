// SPDX-License-Identifier: MIT
// What the rig console in the browser asks of an agent: live preview frames
// as small JPEG pictures while a page holds a lease, thumbnails of new
// pictures, and each camera's settings with the values they may take now.

#include <algorithm>

#include "log/Log.h"
#include "rig/CameraSteps.h"
#include "tool/agent/Agent.h"
#include "tool/agent/Jpeg.h"

namespace qkagent {

namespace {

constexpr int previewQuality = 70, thumbnailWidth = 160;

} // namespace

void Agent::TakeLease(const std::string& payload)
{
    const json lease = json::parse(payload, nullptr, false);
    if (!lease.is_object()) {
        QK_LOG_ERR("qkcam-agent: preview lease is not a JSON object");
        return;
    }
    const auto number = [&lease](const char* name, int fallback, int low, int high) {
        const json& field = lease.contains(name) ? lease[name] : json();
        return field.is_number() ? std::clamp(field.get<int>(), low, high) : fallback;
    };
    leaseFps = number("fps", 2, 1, maxPreviewFps);
    leaseWidth = number("width", 320, 16, maxPreviewWidth);
    leaseUntil = std::chrono::steady_clock::now() + std::chrono::seconds(number("seconds", 10, 1, maxLeaseSeconds));
}

void Agent::PreviewRound()
{
    for (const Rig::Camera& camera : rig ? rig->Cameras() : std::vector<Rig::Camera>{}) {
        std::vector<unsigned char> bmp;
        std::string jpeg, error;
        if (qkrig::PreviewBmp(*camera.device, &bmp) != QK_OK)
            continue;
        if (!BmpToJpeg(bmp, leaseWidth, previewQuality, &jpeg, &error)) {
            QK_LOG_ERR("qkcam-agent: preview of %s: %s", wstrToStr(camera.serial).c_str(), error.c_str());
            continue;
        }
        // Frames are only worth their moment: sent at most once.
        client->Publish(Topic("preview/" + wstrToStr(camera.serial)), jpeg, 0, false);
    }
}

void Agent::PublishThumbnail(const Rig::Camera& camera, int id, const std::string& name)
{
    std::string picture, jpeg, error;
    if (qkrig::ReadFile(*camera.device, id, &picture) != QK_OK) {
        QK_LOG_ERR("qkcam-agent: %s of %s could not be read", name.c_str(), wstrToStr(camera.serial).c_str());
        return;
    }
    if (!Thumbnail(picture, thumbnailWidth, &jpeg, &error)) {
        QK_LOG_ERR("qkcam-agent: thumbnail of %s: %s", name.c_str(), error.c_str());
        return;
    }
    client->Publish(Topic("thumb/" + wstrToStr(camera.serial) + "/" + name), jpeg, 1, false);
}

json Agent::Describe(const Request& request)
{
    json cameras = json::array();
    for (const Rig::Camera& camera : Chosen(request)) {
        json part = {{"serial", wstrToStr(camera.serial)}, {"ok", true},
                     {"model", wstrToStr(camera.device->GetCameraId())}};
        json properties = json::object();
        for (int property : qkrig::CameraProperties(*camera.device)) {
            int value = 0;
            if (camera.device->GetPropertyData(property, &value) != QK_OK)
                continue;
            json choices = json::array();
            for (int allowed : qkrig::AllowedValues(*camera.device, property))
                choices.push_back(qkrig::ValueName(property, allowed));
            properties[qkrig::PropertyName(property)] = {{"value", qkrig::ValueName(property, value)},
                                                         {"choices", choices}};
        }
        part["properties"] = properties;
        int zoom = 0, longest = 0;
        if (camera.device->GetZoom(&zoom) == QK_OK && camera.device->GetMaximumZoom(&longest) == QK_OK)
            part["zoom"] = {{"position", zoom}, {"max", longest}};
        cameras.push_back(part);
    }
    return cameras;
}

} // namespace qkagent
