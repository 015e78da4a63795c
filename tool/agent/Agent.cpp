// SPDX-License-Identifier: MIT
// The agent's life: connection and announcements, cameras coming and going,
// and commands taken one at a time on the worker thread.

#include "tool/agent/Agent.h"

#include <algorithm>

#include "DevicePTP/Version.h"
#include "log/Log.h"
#include "rig/CameraSteps.h"
#include "usb/UsbLib_libusb.h"

namespace qkagent {

namespace {

// A camera whose own changes of a setting become events.
class AnnouncingDevice : public DevicePTP {
public:
    using Announce = std::function<void(const std::string& serial, int property, int value)>;
    AnnouncingDevice(std::shared_ptr<UsbLib> usb, std::wstring path, Announce announce_)
        : DevicePTP(std::move(usb), std::move(path)), announce(std::move(announce_))
    {
    }
    void OnPropertyChanged(int property) override
    {
        int value = 0;
        if (GetPropertyData(property, &value) == QK_OK)
            announce(wstrToStr(GetSerialNumber()), property, value);
    }

private:
    Announce announce;
};

} // namespace

Agent::Agent(AgentOptions options_) : options(std::move(options_)) {}

Agent::~Agent()
{
    if (client)
        client->Stop();
}

std::string Agent::Topic(const std::string& rest) const { return qkmqtt::Topic(options.rig, options.host + "/" + rest); }

void Agent::OnUsbEvent()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        busChanged = true;
    }
    wake.notify_one();
}

int Agent::Run(const std::atomic<bool>& stop)
{
    // The transport tells this object of bus changes while it lives.
    std::shared_ptr<Agent> self(this, [](Agent*) {});
    usb = UsbLib_libusb::build(self);
    client = std::make_unique<qkmqtt::Client>("qkcam-agent-" + options.rig + "-" + options.host, options.broker,
                                              Topic("status"), json{{"state", "offline"}}.dump());
    client->OnMessage([this](const std::string& topic, const std::string& payload) { Receive(topic, payload); });
    // After every (re)connection the retained announcements are renewed.
    client->OnConnect([this] {
        std::lock_guard<std::mutex> lock(mutex);
        chores.push_back([this] { Announce(); });
        wake.notify_one();
    });
    client->Subscribe(qkmqtt::Topic(options.rig, "cmd"));
    client->Subscribe(Topic("cmd"));
    client->Subscribe(qkmqtt::Topic(options.rig, "preview/lease"));
    std::string error;
    if (!client->Start(&error)) {
        QK_LOG_ERR("qkcam-agent: %s", error.c_str());
        return 1;
    }
    QK_LOG_INF("qkcam-agent: rig %s, host %s, broker %s:%d", options.rig.c_str(), options.host.c_str(),
               options.broker.host.c_str(), options.broker.port);
    while (!stop) {
        std::unique_lock<std::mutex> lock(mutex);
        const auto now = std::chrono::steady_clock::now();
        const bool previewing = now < leaseUntil;
        if (previewing && now >= nextFrames) {
            lock.unlock();
            nextFrames = now + std::chrono::milliseconds(1000 / leaseFps);
            PreviewRound();
            continue;
        }
        const auto until = previewing ? std::min(nextFrames, now + std::chrono::milliseconds(200))
                                      : now + std::chrono::milliseconds(200);
        wake.wait_until(lock, until, [this] { return busChanged || !inbox.empty() || !chores.empty(); });
        if (busChanged) {
            busChanged = false;
            lock.unlock();
            Refresh();
            continue;
        }
        if (!chores.empty()) {
            std::function<void()> chore = std::move(chores.front());
            chores.pop_front();
            lock.unlock();
            chore();
            continue;
        }
        if (!inbox.empty()) {
            auto [topic, payload] = std::move(inbox.front());
            inbox.pop_front();
            lock.unlock();
            Execute(topic, payload);
        }
    }
    // A clean goodbye: the last will is for a host that vanishes.
    client->Publish(Topic("status"), json{{"state", "offline"}}.dump(), 1, true);
    client->WaitDelivered(std::chrono::milliseconds(2000));
    client->Stop();
    rig.reset();
    ready.clear();
    return 0;
}

void Agent::Receive(const std::string& topic, const std::string& payload)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        inbox.emplace_back(topic, payload);
    }
    wake.notify_one();
}

void Agent::Answer(const std::string& id, json result)
{
    result["host"] = options.host;
    const std::string text = result.dump();
    if (id != "invalid") {
        answered[id] = text;
        answeredOrder.push_back(id);
        if (answeredOrder.size() > rememberedResults) {
            answered.erase(answeredOrder.front());
            answeredOrder.pop_front();
        }
    }
    client->Publish(Topic("result/" + id), text, 1, false);
}

void Agent::Execute(const std::string& topic, const std::string& payload)
{
    if (topic == qkmqtt::Topic(options.rig, "preview/lease")) {
        TakeLease(payload);
        return;
    }
    Request request;
    request.forThisHost = topic == Topic("cmd");
    json result = {{"id", "invalid"}, {"op", nullptr}, {"ok", false}};
    // Never parsed: nothing that large is a command.
    if (payload.size() > maxCommandBytes) {
        result["error"] = "command of " + std::to_string(payload.size()) + " bytes is over the limit of " +
                          std::to_string(maxCommandBytes);
        QK_LOG_ERR("qkcam-agent: %s", result["error"].get<std::string>().c_str());
        Answer("invalid", result);
        return;
    }
    request.command = json::parse(payload, nullptr, false);
    const json& command = request.command;
    std::string error;
    if (request.command.is_discarded() || !command.is_object())
        error = "command is not a JSON object";
    else if (!command.contains("id") || !command["id"].is_string() || !qkmqtt::IsTopicLevel(command["id"]) ||
             command["id"].get<std::string>().size() > 64)
        error = "command has no \"id\" (a string of at most 64 characters without '/', '+' or '#')";
    if (!error.empty()) {
        result["error"] = error;
        QK_LOG_ERR("qkcam-agent: %s", error.c_str());
        Answer("invalid", result);
        return;
    }
    request.id = command["id"];
    // Delivered again (QoS 1): the first answer, not a second execution.
    auto seen = answered.find(request.id);
    if (seen != answered.end()) {
        QK_LOG_INF("qkcam-agent: command %s seen again, answered as before", request.id.c_str());
        client->Publish(Topic("result/" + request.id), seen->second, 1, false);
        return;
    }
    result["id"] = request.id;
    if (!command.contains("op") || !command["op"].is_string()) {
        result["error"] = "command has no \"op\" string";
    } else {
        request.op = command["op"];
        result = Dispatch(request);
    }
    if (result.contains("error"))
        QK_LOG_ERR("qkcam-agent: command %s: %s", request.id.c_str(), result["error"].dump().c_str());
    Answer(request.id, result);
}

json Agent::Dispatch(const Request& request)
{
    json result = {{"id", request.id}, {"op", request.op}, {"ok", true}};
    try {
        json cameras;
        if (request.op == "list")
            cameras = CameraList();
        else if (request.op == "get")
            cameras = Get(request);
        else if (request.op == "set")
            cameras = Set(request);
        else if (request.op == "zoom")
            cameras = Zoom(request);
        else if (request.op == "shoot")
            cameras = Shoot(request);
        else if (request.op == "download" || request.op == "remove")
            cameras = Transfer(request);
        else if (request.op == "preview")
            cameras = Preview(request);
        else if (request.op == "describe")
            cameras = Describe(request);
        else
            throw CommandError{"unknown operation \"" + request.op +
                               "\"; operations: list, get, set, zoom, shoot, download, remove, preview, describe"};
        result["cameras"] = cameras;
        for (const json& camera : cameras)
            if (camera.contains("ok") && !camera["ok"].get<bool>())
                result["ok"] = false;
    } catch (const CommandError& refused) {
        result["ok"] = false;
        result["error"] = refused.message;
    } catch (const json::exception& wrong) {
        // A field of the wrong type caught late; the checks name most first.
        result["ok"] = false;
        result["error"] = std::string("bad command: ") + wrong.what();
    }
    return result;
}

void Agent::Refresh()
{
    const std::set<std::wstring> attached = usb->GetAllConnectedDevicePaths();
    bool changed = false;
    for (auto camera = identities.begin(); camera != identities.end();) {
        if (attached.count(camera->first)) {
            ++camera;
            continue;
        }
        Event({{"event", "left"}, {"serial", camera->second["serial"]}});
        ready.erase(camera->first);
        camera = identities.erase(camera);
        changed = true;
    }
    RigOptions opening;
    for (const std::wstring& path : attached)
        if (!identities.count(path))
            opening.paths.push_back(path);
    if (!opening.paths.empty()) {
        opening.build = [this](std::shared_ptr<UsbLib> transport, std::wstring path) -> std::shared_ptr<DevicePTP> {
            return std::make_shared<AnnouncingDevice>(
                std::move(transport), std::move(path), [this](const std::string& serial, int property, int value) {
                    Event({{"event", "property"}, {"serial", serial}, {"property", qkrig::PropertyName(property)},
                           {"value", qkrig::ValueName(property, value)}});
                });
        };
        std::unique_ptr<Rig> opened = Rig::Open(usb, opening);
        for (const Rig::Camera& camera : opened->Cameras()) {
            ready[camera.path] = camera;
            identities[camera.path] = {{"serial", wstrToStr(camera.serial)},
                                       {"model", wstrToStr(camera.device->GetCameraId())},
                                       {"product", wstrToStr(camera.device->GetCameraName())},
                                       {"ready", true}};
        }
        for (const RigOutcome& failure : opened->Failures()) {
            identities[failure.path] = {{"serial", wstrToStr(failure.serial)}, {"ready", false},
                                        {"step", failure.step}, {"result", qkrig::ResultName(failure.result)}};
        }
        for (const std::wstring& path : opening.paths)
            if (identities.count(path))
                Event({{"event", "arrived"}, {"serial", identities[path]["serial"]},
                       {"ready", identities[path]["ready"]}});
        changed = true;
    }
    if (!changed && rig)
        return;
    std::vector<Rig::Camera> cameras;
    for (const auto& entry : ready)
        cameras.push_back(entry.second);
    rig = Rig::Of(usb, cameras);
    Announce();
}

json Agent::CameraList() const
{
    json cameras = json::array();
    for (const auto& entry : identities)
        cameras.push_back(entry.second);
    return cameras;
}

void Agent::Announce()
{
    client->Publish(Topic("status"), json{{"state", "online"}, {"version", qkcamVersion()}}.dump(), 1, true);
    client->Publish(Topic("cameras"), CameraList().dump(), 1, true);
}

void Agent::Event(json event)
{
    client->Publish(Topic("event"), event.dump(), 1, false);
}

} // namespace qkagent
