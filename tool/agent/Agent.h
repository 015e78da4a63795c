// SPDX-License-Identifier: MIT
#pragma once
// qkcam-agent: the cameras of one host as part of a rig that spans hosts,
// over an MQTT broker. It keeps every attached camera open through the rig
// layer, follows cameras that come and go, announces them, and carries out
// the commands the coordinator publishes, one at a time, answering each
// with one result.

#include <nlohmann/json.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "rig/Rig.h"
#include "tool/mqtt/Mqtt.h"

namespace qkagent {

using json = nlohmann::ordered_json;

struct AgentOptions {
    qkmqtt::BrokerOptions broker;
    std::string rig;
    std::string host;
    std::string downloadDir;
};

// Largest command taken; a picture is never a command.
constexpr size_t maxCommandBytes = 64 * 1024;
// Results kept for answering a command seen again (QoS 1 redelivery).
constexpr size_t rememberedResults = 1000;
// What a page may ask of the live preview.
constexpr int maxPreviewFps = 10, maxPreviewWidth = 1280, maxLeaseSeconds = 60;

class Agent : public IUsbLib_Notify {
public:
    explicit Agent(AgentOptions options);
    ~Agent() override;
    // Until `stop` turns true; the exit status.
    int Run(const std::atomic<bool>& stop);
    void OnUsbEvent() override;

    // The result of one command, for the operations' file.
    struct Request {
        json command;
        std::string id, op;
        bool forThisHost = false; // came on <host>/cmd, not the rig-wide topic
    };

private:
    std::string Topic(const std::string& rest) const;
    void Receive(const std::string& topic, const std::string& payload);
    void Execute(const std::string& topic, const std::string& payload);
    void Answer(const std::string& id, json result);
    json Dispatch(const Request& request);
    void Refresh();
    void Announce();
    json CameraList() const;
    void Event(json event);

    // The operations (AgentOps.cpp); each fills the result or throws
    // CommandError (caught in Dispatch) for a command it can't take.
    std::vector<Rig::Camera> Chosen(const Request& request) const;
    json Get(const Request& request);
    json Set(const Request& request);
    json Zoom(const Request& request);
    json Shoot(const Request& request);
    json Transfer(const Request& request);
    json Preview(const Request& request);
    json Describe(const Request& request);
    void PublishThumbnail(const Rig::Camera& camera, int id, const std::string& name);
    // Live preview for pages that hold a lease (renewed while they are open).
    void TakeLease(const std::string& payload);
    void PreviewRound();
    void PublishFile(const Rig::Camera& camera, int id, const std::string& name, bool removeAfter);

    AgentOptions options;
    std::shared_ptr<UsbLib> usb;
    std::unique_ptr<qkmqtt::Client> client;

    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::pair<std::string, std::string>> inbox; // topic, payload
    std::deque<std::function<void()>> chores;             // camera work posted by the network thread
    bool busChanged = true;

    // Only the worker thread touches these.
    std::map<std::wstring, Rig::Camera> ready;
    std::map<std::wstring, json> identities;
    std::unique_ptr<Rig> rig;
    std::chrono::steady_clock::time_point leaseUntil{}, nextFrames{};
    int leaseFps = 2, leaseWidth = 320;
    std::map<std::string, std::string> answered;
    std::deque<std::string> answeredOrder;
};

// A command the agent refuses: the message goes into the error result.
struct CommandError {
    std::string message;
};

} // namespace qkagent
