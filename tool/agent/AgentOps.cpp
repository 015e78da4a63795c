// SPDX-License-Identifier: MIT
// The agent's operations on its cameras, each through the rig layer's steps.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "log/Log.h"
#include "rig/CameraSteps.h"
#include "tool/agent/Agent.h"

namespace qkagent {

namespace {

// A camera's part of a result: its serial, and the failure if there is one.
json Part(const Rig::Camera& camera, QKResult result, const std::string& step)
{
    json part = {{"serial", wstrToStr(camera.serial)}, {"ok", result == QK_OK}};
    if (result != QK_OK) {
        part["step"] = step;
        part["result"] = qkrig::ResultName(result);
        part["error"] = step + " failed: " + qkrig::ResultName(result);
    }
    return part;
}

const json& Field(const json& command, const char* name, json::value_t type, const char* what)
{
    static const json none;
    if (!command.contains(name))
        return none;
    const json& field = command[name];
    const bool fits = field.type() == type || (type == json::value_t::number_integer && field.is_number_integer()) ||
                      (type == json::value_t::string && field.is_string());
    if (!fits)
        throw CommandError{std::string("\"") + name + "\" must be " + what};
    return field;
}

const json& Required(const json& command, const char* name, json::value_t type, const char* what)
{
    const json& field = Field(command, name, type, what);
    if (field.is_null())
        throw CommandError{std::string("command has no \"") + name + "\" (" + what + ")"};
    return field;
}

int PropertyOf(const std::string& name)
{
    std::optional<int> property = qkrig::FindProperty(name);
    if (!property)
        throw CommandError{"unknown property \"" + name + "\""};
    return *property;
}

} // namespace

std::vector<Rig::Camera> Agent::Chosen(const Request& request) const
{
    const json& serials = Field(request.command, "serials", json::value_t::array, "a list of serial numbers");
    const json& serial = Field(request.command, "serial", json::value_t::string, "a serial number");
    std::vector<std::string> wanted;
    if (serial.is_string())
        wanted.push_back(serial);
    for (const json& each : serials) {
        if (!each.is_string())
            throw CommandError{"\"serials\" must be a list of serial numbers"};
        wanted.push_back(each);
    }
    std::vector<Rig::Camera> chosen;
    for (const Rig::Camera& camera : rig->Cameras())
        if (wanted.empty() || std::count(wanted.begin(), wanted.end(), wstrToStr(camera.serial)))
            chosen.push_back(camera);
    // Sent to this host alone, a serial it doesn't have is a mistake; sent to
    // the whole rig, another host may have it.
    if (request.forThisHost)
        for (const std::string& each : wanted)
            if (!rig->Find(strToWstr(each)))
                throw CommandError{"unknown serial " + each + " on host " + options.host};
    return chosen;
}

json Agent::Get(const Request& request)
{
    const json& name = Field(request.command, "property", json::value_t::string, "a property name");
    std::optional<int> asked;
    if (name.is_string())
        asked = PropertyOf(name);
    json cameras = json::array();
    for (const Rig::Camera& camera : Chosen(request)) {
        json part = Part(camera, QK_OK, "");
        json values = json::object();
        for (int property : asked ? std::vector<int>{*asked} : qkrig::CameraProperties(*camera.device)) {
            int value = 0;
            const QKResult result = camera.device->GetPropertyData(property, &value);
            if (result != QK_OK) {
                part = Part(camera, result, "GetPropertyData " + qkrig::PropertyName(property));
                break;
            }
            values[qkrig::PropertyName(property)] = qkrig::ValueName(property, value);
        }
        part["values"] = values;
        cameras.push_back(part);
    }
    return cameras;
}

json Agent::Set(const Request& request)
{
    const int property =
        PropertyOf(Required(request.command, "property", json::value_t::string, "a property name"));
    const json& given = request.command.contains("value") ? request.command["value"] : json();
    if (!given.is_string() && !given.is_number_integer())
        throw CommandError{"\"value\" must be a value name or number"};
    const std::string text = given.is_string() ? given.get<std::string>() : std::to_string(given.get<long long>());
    std::optional<int> value = qkrig::FindValue(property, text);
    if (!value)
        throw CommandError{"unknown value \"" + text + "\" of " + qkrig::PropertyName(property) +
                           "; values: " + qkrig::JoinNames(qkrig::AllValueNames(property))};
    std::vector<Rig::Camera> chosen = Chosen(request);
    std::vector<RigOutcome> outcomes = Rig::Of(usb, chosen)->ForEach([&](const Rig::Camera& camera, std::string* step) {
        *step = "SetPropertyData " + qkrig::PropertyName(property);
        return qkrig::SetAllowedValue(*camera.device, property, *value);
    });
    json cameras = json::array();
    for (size_t i = 0; i < outcomes.size(); ++i)
        cameras.push_back(Part(chosen[i], outcomes[i].result, outcomes[i].step));
    return cameras;
}

json Agent::Zoom(const Request& request)
{
    const int position =
        Required(request.command, "position", json::value_t::number_integer, "a zoom position").get<int>();
    std::vector<Rig::Camera> chosen = Chosen(request);
    std::vector<RigOutcome> outcomes = Rig::Of(usb, chosen)->ForEach([&](const Rig::Camera& camera, std::string* step) {
        int longest = 0;
        camera.device->GetMaximumZoom(&longest);
        *step = "PTPSetZoom " + std::to_string(position) + " (0 to " + std::to_string(longest) + ")";
        return qkrig::ZoomTo(*camera.device, position);
    });
    json cameras = json::array();
    for (size_t i = 0; i < outcomes.size(); ++i)
        cameras.push_back(Part(chosen[i], outcomes[i].result, outcomes[i].step));
    return cameras;
}

json Agent::Shoot(const Request& request)
{
    using namespace std::chrono;
    const long long fireAtNs =
        Required(request.command, "fire_at", json::value_t::number_integer, "wall-clock nanoseconds").get<long long>();
    const bool direct = Field(request.command, "direct", json::value_t::boolean, "true or false").is_boolean() &&
                        request.command["direct"].get<bool>();
    const bool publish = Field(request.command, "publish", json::value_t::boolean, "true or false").is_boolean() &&
                         request.command["publish"].get<bool>();
    const bool keep = Field(request.command, "keep", json::value_t::boolean, "true or false").is_boolean() &&
                      request.command["keep"].get<bool>();
    const bool thumbnails =
        Field(request.command, "thumbnails", json::value_t::boolean, "true or false").is_boolean() &&
        request.command["thumbnails"].get<bool>();
    const system_clock::time_point fireAt{duration_cast<system_clock::duration>(nanoseconds(fireAtNs))};
    const auto now = system_clock::now();
    const long long aheadMs = duration_cast<milliseconds>(fireAt - now).count();
    if (fireAt <= now)
        throw CommandError{"fire_at is " + std::to_string(-aheadMs) + " ms in the past"};
    if (fireAt > now + minutes(1))
        throw CommandError{"fire_at is " + std::to_string(aheadMs) + " ms ahead, more than a minute"};
    std::vector<Rig::Camera> chosen = Chosen(request);
    std::vector<RigShotOutcome> shots = Rig::Of(usb, chosen)->ShootAt(direct, fireAt);
    json cameras = json::array();
    for (size_t i = 0; i < shots.size(); ++i) {
        const RigShotOutcome& shot = shots[i];
        json part = Part(chosen[i], shot.result, shot.step);
        if (shot.released.time_since_epoch().count() != 0)
            part["released_ns"] = duration_cast<nanoseconds>(shot.released.time_since_epoch()).count();
        if (shot.ok()) {
            const std::string name = wstrToStr(shot.file.name);
            part["file"] = {{"id", shot.file.id}, {"name", name}, {"size", shot.file.size}};
            if (!options.downloadDir.empty() && qkrig::IsPlainFileName(name)) {
                const std::string folder = options.downloadDir + "/" + wstrToStr(shot.serial);
                mkdir(folder.c_str(), 0777);
                const QKResult saved = qkrig::DownloadTo(*chosen[i].device, shot.file.id, folder + "/" + name);
                part["saved"] = saved == QK_OK ? json(folder + "/" + name) : json();
            }
            if (thumbnails)
                PublishThumbnail(chosen[i], shot.file.id, name);
            if (publish)
                PublishFile(chosen[i], shot.file.id, name, !keep);
            part["published"] = publish;
        }
        cameras.push_back(part);
    }
    return cameras;
}

void Agent::PublishFile(const Rig::Camera& camera, int id, const std::string& name, bool removeAfter)
{
    std::string bytes;
    const QKResult result = qkrig::ReadFile(*camera.device, id, &bytes);
    if (result != QK_OK) {
        QK_LOG_ERR("qkcam-agent: %s of %s could not be read", name.c_str(), wstrToStr(camera.serial).c_str());
        return;
    }
    std::function<void()> delivered;
    // The card gives the picture up only once the broker has it; the removal
    // is camera work, done on the worker thread, not the network thread.
    if (removeAfter)
        delivered = [this, device = camera.device, id] {
            std::lock_guard<std::mutex> lock(mutex);
            chores.push_back([device, id] { device->PTPRemoveFile(id); });
            wake.notify_one();
        };
    client->Publish(Topic("file/" + wstrToStr(camera.serial) + "/" + name), bytes, 1, false, delivered);
}

json Agent::Transfer(const Request& request)
{
    Required(request.command, "serial", json::value_t::string, "a serial number");
    const json& file = request.command.contains("file") ? request.command["file"] : json();
    if (!file.is_string() && !file.is_number_integer())
        throw CommandError{"\"file\" must be a file name or id"};
    const std::vector<Rig::Camera> chosen = Chosen(request);
    if (chosen.empty())
        return json::array();
    const Rig::Camera& camera = chosen.front();
    std::vector<QKFileInfo> files;
    QKResult result = qkrig::Catalogue(*camera.device, &files);
    if (result != QK_OK)
        return json::array({Part(camera, result, "PTPUpdateObjectsInfo")});
    auto found = std::find_if(files.begin(), files.end(), [&](const QKFileInfo& each) {
        return file.is_string() ? wstrToStr(each.name) == file.get<std::string>() : each.id == file.get<int>();
    });
    if (found == files.end())
        throw CommandError{"camera " + wstrToStr(camera.serial) + " has no file " + file.dump()};
    const std::string name = wstrToStr(found->name);
    json part;
    if (request.op == "download") {
        PublishFile(camera, found->id, name, false);
        part = Part(camera, QK_OK, "");
    } else {
        part = Part(camera, camera.device->PTPRemoveFile(found->id), "PTPRemoveFile " + name);
    }
    part["file"] = {{"id", found->id}, {"name", name}, {"size", found->size}};
    return json::array({part});
}

json Agent::Preview(const Request& request)
{
    json cameras = json::array();
    for (const Rig::Camera& camera : Chosen(request)) {
        std::vector<unsigned char> bmp;
        const QKResult result = qkrig::PreviewBmp(*camera.device, &bmp);
        if (result == QK_OK)
            client->Publish(Topic("file/" + wstrToStr(camera.serial) + "/preview.bmp"),
                            std::string(bmp.begin(), bmp.end()), 1, false);
        cameras.push_back(Part(camera, result, "PTPLoadPreviewFrame"));
    }
    return cameras;
}

} // namespace qkagent
