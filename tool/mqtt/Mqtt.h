// SPDX-License-Identifier: MIT
#pragma once
// The rig's link to an MQTT broker, over libmosquitto: connection options
// from the command line, a client that reconnects by itself with back-off,
// renews its subscriptions on every connection, and keeps each QoS 1
// message until the broker has acknowledged it, sending it again after a
// reconnection; and the rig's topic names.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace qkmqtt {

struct BrokerOptions {
    std::string host = "localhost";
    int port = 1883;
    std::string username;
    std::string password;
    std::string tlsCa, tlsCert, tlsKey;
};

// "HOST" or "HOST:PORT"; false with `error` set when it is neither.
bool ParseBroker(const std::string& text, BrokerOptions* options, std::string* error);
// The first line of a file, for --password-file; false with `error` set.
bool ReadPassword(const std::string& path, std::string* password, std::string* error);

// qkcam/<rig>/<rest>
std::string Topic(const std::string& rig, const std::string& rest);
// True for a name that can stand as one topic level (no '/', '+', '#', not empty).
bool IsTopicLevel(const std::string& name);

class Client {
public:
    using MessageHandler = std::function<void(const std::string& topic, const std::string& payload)>;

    // `willTopic` empty: no last will.
    Client(const std::string& clientId, BrokerOptions options, std::string willTopic = "",
           std::string willPayload = "");
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Runs on the client's network thread: keep them short.
    void OnMessage(MessageHandler handler) { onMessage = std::move(handler); }
    void OnConnect(std::function<void()> handler) { onConnect = std::move(handler); }

    // Starts connecting (and reconnecting, with back-off, for good); false
    // with `error` set when the options can't be used at all.
    bool Start(std::string* error);
    // Waits for the first connection; false with `error` (the broker's
    // refusal, or a time-out).
    bool WaitConnected(std::chrono::milliseconds limit, std::string* error);
    void Subscribe(const std::string& pattern);
    // QoS 1 messages are kept until acknowledged and sent again after a
    // reconnection; `delivered` runs (on the network thread) at the first
    // acknowledgement.
    void Publish(const std::string& topic, const std::string& payload, int qos, bool retain,
                 std::function<void()> delivered = nullptr);
    // Waits until every QoS 1 message has been acknowledged.
    bool WaitDelivered(std::chrono::milliseconds limit);
    // Disconnects cleanly (no last will) and stops the network thread.
    void Stop();

private:
    struct Pending {
        std::string topic, payload;
        bool retain;
        std::function<void()> delivered;
    };
    static void Connected(mosquitto*, void* self, int rc);
    static void Message(mosquitto*, void* self, const mosquitto_message* message);
    static void Published(mosquitto*, void* self, int mid);
    // Under `mutex`.
    void SendLocked(unsigned long key);

    mosquitto* handle = nullptr;
    BrokerOptions options;
    MessageHandler onMessage;
    std::function<void()> onConnect;
    std::mutex mutex;
    std::condition_variable changed;
    bool connected = false;
    int refusal = -1; // the last CONNACK code, -1 before any
    std::vector<std::string> subscriptions;
    unsigned long nextKey = 0;
    std::map<unsigned long, Pending> pending; // QoS 1, not yet acknowledged
    std::map<int, unsigned long> inFlight;    // message id -> pending key
    bool started = false;
};

} // namespace qkmqtt
