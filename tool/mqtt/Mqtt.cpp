// SPDX-License-Identifier: MIT
#include "tool/mqtt/Mqtt.h"

#include <mosquitto.h>

#include <fstream>

namespace qkmqtt {

namespace {

constexpr int keepAliveSeconds = 10;
constexpr unsigned int firstRetrySeconds = 1, lastRetrySeconds = 30;

} // namespace

bool ParseBroker(const std::string& text, BrokerOptions* options, std::string* error)
{
    const size_t colon = text.rfind(':');
    options->host = text.substr(0, colon);
    if (colon != std::string::npos) {
        const std::string port = text.substr(colon + 1);
        char* end = nullptr;
        const long number = std::strtol(port.c_str(), &end, 10);
        if (port.empty() || *end != '\0' || number < 1 || number > 65535) {
            *error = "bad broker port in \"" + text + "\"";
            return false;
        }
        options->port = static_cast<int>(number);
    }
    if (options->host.empty()) {
        *error = "no broker host in \"" + text + "\"";
        return false;
    }
    return true;
}

bool ReadPassword(const std::string& path, std::string* password, std::string* error)
{
    std::ifstream file(path);
    if (!file || !std::getline(file, *password)) {
        *error = "can't read a password from " + path;
        return false;
    }
    return true;
}

std::string Topic(const std::string& rig, const std::string& rest) { return "qkcam/" + rig + "/" + rest; }

bool IsTopicLevel(const std::string& name)
{
    return !name.empty() && name.find_first_of("/+#") == std::string::npos;
}

Client::Client(const std::string& clientId, BrokerOptions options_, std::string willTopic, std::string willPayload)
    : options(std::move(options_))
{
    static const int initialised = mosquitto_lib_init();
    (void)initialised;
    handle = mosquitto_new(clientId.c_str(), true, this);
    if (!handle)
        return;
    mosquitto_connect_callback_set(handle, &Client::Connected);
    mosquitto_disconnect_callback_set(handle, [](mosquitto*, void* self, int) {
        Client* client = static_cast<Client*>(self);
        std::lock_guard<std::mutex> lock(client->mutex);
        client->connected = false;
    });
    mosquitto_message_callback_set(handle, &Client::Message);
    mosquitto_publish_callback_set(handle, &Client::Published);
    mosquitto_reconnect_delay_set(handle, firstRetrySeconds, lastRetrySeconds, true);
    if (!willTopic.empty())
        mosquitto_will_set(handle, willTopic.c_str(), static_cast<int>(willPayload.size()), willPayload.data(), 1,
                           true);
}

Client::~Client()
{
    Stop();
    if (handle)
        mosquitto_destroy(handle);
}

bool Client::Start(std::string* error)
{
    if (!handle) {
        *error = "no MQTT client (out of memory)";
        return false;
    }
    if (!options.username.empty() &&
        mosquitto_username_pw_set(handle, options.username.c_str(),
                                  options.password.empty() ? nullptr : options.password.c_str()) != MOSQ_ERR_SUCCESS) {
        *error = "bad user name or password for the broker";
        return false;
    }
    if (!options.tlsCa.empty()) {
        const int rc = mosquitto_tls_set(handle, options.tlsCa.c_str(), nullptr,
                                         options.tlsCert.empty() ? nullptr : options.tlsCert.c_str(),
                                         options.tlsKey.empty() ? nullptr : options.tlsKey.c_str(), nullptr);
        if (rc != MOSQ_ERR_SUCCESS) {
            *error = std::string("TLS: ") + mosquitto_strerror(rc);
            return false;
        }
    }
    // A broker that is not there yet is retried by the network thread.
    mosquitto_connect_async(handle, options.host.c_str(), options.port, keepAliveSeconds);
    const int rc = mosquitto_loop_start(handle);
    if (rc != MOSQ_ERR_SUCCESS) {
        *error = std::string("MQTT network thread: ") + mosquitto_strerror(rc);
        return false;
    }
    started = true;
    return true;
}

bool Client::WaitConnected(std::chrono::milliseconds limit, std::string* error)
{
    std::unique_lock<std::mutex> lock(mutex);
    if (changed.wait_for(lock, limit, [this] { return connected || refusal > 0; }) && connected)
        return true;
    *error = refusal > 0 ? std::string("the broker refused the connection: ") + mosquitto_connack_string(refusal)
                         : "no connection to the broker at " + options.host + ":" + std::to_string(options.port);
    return false;
}

void Client::Subscribe(const std::string& pattern)
{
    std::lock_guard<std::mutex> lock(mutex);
    subscriptions.push_back(pattern);
    if (connected)
        mosquitto_subscribe(handle, nullptr, pattern.c_str(), 1);
}

void Client::Publish(const std::string& topic, const std::string& payload, int qos, bool retain,
                     std::function<void()> delivered)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (qos == 0) {
        mosquitto_publish(handle, nullptr, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 0, retain);
        return;
    }
    const unsigned long key = nextKey++;
    pending[key] = Pending{topic, payload, retain, std::move(delivered)};
    SendLocked(key);
}

void Client::SendLocked(unsigned long key)
{
    const Pending& message = pending[key];
    int mid = 0;
    // Not connected: the message stays pending and goes out again on the next connection.
    mosquitto_publish(handle, &mid, message.topic.c_str(), static_cast<int>(message.payload.size()),
                      message.payload.data(), 1, message.retain);
    if (mid != 0)
        inFlight[mid] = key;
}

bool Client::WaitDelivered(std::chrono::milliseconds limit)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, limit, [this] { return pending.empty(); });
}

void Client::Stop()
{
    if (!started)
        return;
    started = false;
    mosquitto_disconnect(handle);
    mosquitto_loop_stop(handle, false);
}

void Client::Connected(mosquitto*, void* self, int rc)
{
    Client* client = static_cast<Client*>(self);
    {
        std::lock_guard<std::mutex> lock(client->mutex);
        client->refusal = rc;
        client->connected = rc == 0;
        if (rc == 0) {
            for (const std::string& pattern : client->subscriptions)
                mosquitto_subscribe(client->handle, nullptr, pattern.c_str(), 1);
            client->inFlight.clear();
            for (const auto& entry : client->pending)
                client->SendLocked(entry.first);
        }
    }
    client->changed.notify_all();
    if (rc == 0 && client->onConnect)
        client->onConnect();
}

void Client::Message(mosquitto*, void* self, const mosquitto_message* message)
{
    Client* client = static_cast<Client*>(self);
    if (client->onMessage && message->topic)
        client->onMessage(message->topic,
                          std::string(static_cast<const char*>(message->payload),
                                      message->payload ? static_cast<size_t>(message->payloadlen) : 0));
}

void Client::Published(mosquitto*, void* self, int mid)
{
    Client* client = static_cast<Client*>(self);
    std::function<void()> delivered;
    {
        std::lock_guard<std::mutex> lock(client->mutex);
        auto flight = client->inFlight.find(mid);
        if (flight == client->inFlight.end())
            return;
        auto message = client->pending.find(flight->second);
        client->inFlight.erase(flight);
        if (message == client->pending.end())
            return;
        delivered = std::move(message->second.delivered);
        client->pending.erase(message);
    }
    client->changed.notify_all();
    if (delivered)
        delivered();
}

} // namespace qkmqtt
