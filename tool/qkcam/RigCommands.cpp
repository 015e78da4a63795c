// SPDX-License-Identifier: MIT
// qkcam rig status, get, set and shoot: the coordinator of a rig across
// hosts, speaking to the hosts' agents through the broker.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <map>
#include <set>

#include "tool/mqtt/Mqtt.h"
#include "tool/qkcam/Cli.h"

namespace qkcli {

namespace {

using json = nlohmann::ordered_json;
using Clock = std::chrono::steady_clock;

struct RigLink {
    std::string broker = "localhost", rig, passwordFile;
    qkmqtt::BrokerOptions options;
    double timeout = 10;
};

void AddLink(CLI::App* command, RigLink* link)
{
    command->add_option("--broker", link->broker, "the broker, HOST[:PORT]");
    command->add_option("--rig", link->rig, "the rig's name")->required();
    command->add_option("--username", link->options.username, "user name at the broker");
    command->add_option("--password-file", link->passwordFile, "a file whose first line is the password")
        ->check(CLI::ExistingFile);
    command->add_option("--tls-ca", link->options.tlsCa, "CA certificate: connect over TLS")->check(CLI::ExistingFile);
    command->add_option("--tls-cert", link->options.tlsCert, "client certificate")->check(CLI::ExistingFile);
    command->add_option("--tls-key", link->options.tlsKey, "client key")->check(CLI::ExistingFile);
    command->add_option("--timeout", link->timeout, "seconds to wait for the hosts' answers")
        ->check(CLI::PositiveNumber);
}

void MakeDirs(const std::string& path)
{
    for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1))
        mkdir(path.substr(0, slash).c_str(), 0777);
    mkdir(path.c_str(), 0777);
}

// What the broker tells the coordinator, gathered on the network thread.
class Coordinator {
public:
    explicit Coordinator(RigLink link_) : link(std::move(link_)) {}

    int Connect()
    {
        std::string error;
        if (!qkmqtt::ParseBroker(link.broker, &link.options, &error) ||
            (!link.passwordFile.empty() && !qkmqtt::ReadPassword(link.passwordFile, &link.options.password, &error)))
            return Say(kUsage, error);
        if (!qkmqtt::IsTopicLevel(link.rig))
            return Say(kUsage, "a rig's name can't hold '/', '+' or '#'");
        client = std::make_unique<qkmqtt::Client>("qkcam-" + std::to_string(getpid()), link.options);
        client->OnMessage([this](const std::string& topic, const std::string& payload) { Take(topic, payload); });
        for (const char* rest : {"+/status", "+/cameras", "+/result/+"})
            client->Subscribe(qkmqtt::Topic(link.rig, rest));
        if (!client->Start(&error) || !client->WaitConnected(Limit(), &error))
            return Say(kFailed, error);
        // The retained announcements come at once after subscribing.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        return kOk;
    }

    void CollectFiles(const std::string& dir)
    {
        std::lock_guard<std::mutex> lock(mutex);
        fileDir = dir;
        client->Subscribe(qkmqtt::Topic(link.rig, "+/file/#"));
    }

    std::vector<std::string> OnlineHosts()
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::vector<std::string> hosts;
        for (const auto& [host, status] : statuses)
            if (status.value("state", "") == "online")
                hosts.push_back(host);
        return hosts;
    }

    // Sends `command` to the whole rig; the results of every online host, or
    // kFailed once the time limit has passed with hosts still silent.
    int Command(json command, std::map<std::string, json>* results)
    {
        const std::vector<std::string> hosts = OnlineHosts();
        if (hosts.empty())
            return Say(kNoCamera, "no host of rig " + link.rig + " is online");
        const std::string id = "c" + std::to_string(getpid()) + "-" + std::to_string(Clock::now().time_since_epoch().count());
        command["id"] = id;
        client->Publish(qkmqtt::Topic(link.rig, "cmd"), command.dump(), 1, false);
        std::unique_lock<std::mutex> lock(mutex);
        const bool all = changed.wait_for(lock, Limit(), [&] {
            return std::all_of(hosts.begin(), hosts.end(), [&](const std::string& host) { return results_.count({host, id}); });
        });
        for (const std::string& host : hosts)
            if (results_.count({host, id}))
                (*results)[host] = results_[{host, id}];
        if (!all)
            for (const std::string& host : hosts)
                if (!results->count(host))
                    Say(kFailed, "host " + host + " did not answer within " + std::to_string(link.timeout) + " s");
        return all ? kOk : kFailed;
    }

    // Waits until each of `paths` has been written; those missing at the limit.
    std::vector<std::string> AwaitFiles(const std::set<std::string>& paths)
    {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, Limit(), [&] {
            return std::all_of(paths.begin(), paths.end(), [&](const std::string& path) { return written.count(path); });
        });
        std::vector<std::string> missing;
        for (const std::string& path : paths)
            if (!written.count(path))
                missing.push_back(path);
        return missing;
    }

    std::map<std::string, json> Statuses()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return statuses;
    }
    std::map<std::string, json> Cameras()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return cameras;
    }
    std::chrono::milliseconds Limit() const
    {
        return std::chrono::milliseconds(static_cast<long long>(link.timeout * 1000));
    }

private:
    void Take(const std::string& topic, const std::string& payload)
    {
        const std::string prefix = qkmqtt::Topic(link.rig, "");
        if (topic.compare(0, prefix.size(), prefix) != 0)
            return;
        std::vector<std::string> levels;
        for (size_t at = prefix.size(), slash; at <= topic.size(); at = slash + 1) {
            slash = topic.find('/', at);
            if (slash == std::string::npos)
                slash = topic.size();
            levels.push_back(topic.substr(at, slash - at));
        }
        if (levels.size() < 2)
            return;
        const std::string& host = levels[0];
        std::lock_guard<std::mutex> lock(mutex);
        if (levels[1] == "file" && levels.size() == 4 && !fileDir.empty()) {
            // Names from the broker: none may lead out of the download folder.
            if (!qkrig::IsPlainFileName(host) || !qkrig::IsPlainFileName(levels[2]) ||
                !qkrig::IsPlainFileName(levels[3])) {
                Say(kFailed, "refusing a picture published as " + topic);
                return;
            }
            const std::string dir = fileDir + "/" + host + "/" + levels[2];
            MakeDirs(dir);
            std::ofstream(dir + "/" + levels[3], std::ios::binary) << payload;
            written.insert(dir + "/" + levels[3]);
        } else {
            json message = json::parse(payload, nullptr, false);
            if (message.is_discarded())
                return;
            if (levels[1] == "status")
                statuses[host] = message;
            else if (levels[1] == "cameras")
                cameras[host] = message;
            else if (levels[1] == "result" && levels.size() == 3)
                results_[{host, levels[2]}] = message;
        }
        changed.notify_all();
    }

    RigLink link;
    std::unique_ptr<qkmqtt::Client> client;
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, json> statuses, cameras;
    std::map<std::pair<std::string, std::string>, json> results_;
    std::string fileDir;
    std::set<std::string> written;
};

// Each camera's failure said; the command's status.
int ReportParts(const std::map<std::string, json>& results)
{
    int status = kOk;
    for (const auto& [host, result] : results) {
        if (result.contains("error"))
            status = Say(kFailed, "host " + host + ": " + result["error"].get<std::string>());
        for (const json& part : result.value("cameras", json::array()))
            if (!part.value("ok", false))
                status = Say(kFailed, "host " + host + " camera " + part.value("serial", "?") + ": " +
                                          part.value("error", "failed"));
    }
    return status;
}

int Status(const RigLink& link)
{
    Coordinator coordinator(link);
    if (int status = coordinator.Connect())
        return status;
    std::map<std::string, json> cameras = coordinator.Cameras();
    for (const auto& [host, status] : coordinator.Statuses()) {
        std::cout << host << '\t' << status.value("state", "?") << '\t' << status.value("version", "") << '\n';
        for (const json& camera : cameras[host])
            std::cout << "  " << camera.value("serial", "?") << '\t' << camera.value("model", "") << '\t'
                      << (camera.value("ready", false) ? "ready" : "not ready: " + camera.value("step", "") + " " +
                                                                       camera.value("result", ""))
                      << '\n';
    }
    return coordinator.OnlineHosts().empty() ? Say(kNoCamera, "no host of rig " + link.rig + " is online") : kOk;
}

int GetOrSet(const RigLink& link, const json& command)
{
    Coordinator coordinator(link);
    if (int status = coordinator.Connect())
        return status;
    std::map<std::string, json> results;
    int status = coordinator.Command(command, &results);
    for (const auto& [host, result] : results)
        for (const json& part : result.value("cameras", json::array())) {
            const json values = part.value("values", json::object());
            for (const auto& [name, value] : values.items())
                std::cout << host << ' ' << part.value("serial", "?") << ' ' << name << " = " << value.get<std::string>()
                          << '\n';
        }
    return std::max(status, ReportParts(results));
}

int Shoot(const RigLink& link, const std::string& dir, int leadMs, bool keep)
{
    Coordinator coordinator(link);
    if (int status = coordinator.Connect())
        return status;
    if (!dir.empty())
        coordinator.CollectFiles(dir);
    using namespace std::chrono;
    const long long fireAt =
        duration_cast<nanoseconds>((system_clock::now() + milliseconds(leadMs)).time_since_epoch()).count();
    std::map<std::string, json> results;
    int status = coordinator.Command({{"op", "shoot"}, {"fire_at", fireAt}, {"publish", !dir.empty()}, {"keep", keep}},
                                     &results);
    std::set<std::string> expected;
    long long first = LLONG_MAX, last = LLONG_MIN;
    int released = 0;
    for (const auto& [host, result] : results)
        for (const json& part : result.value("cameras", json::array())) {
            if (!part.value("ok", false) || !part.contains("file"))
                continue;
            const long long at = part.value("released_ns", 0LL);
            first = std::min(first, at);
            last = std::max(last, at);
            ++released;
            const std::string name = part["file"].value("name", "");
            std::string line = host + "\t" + part.value("serial", "?") + "\t" + name + "\t" +
                               std::to_string(part["file"].value("size", 0)) + "\treleased " +
                               std::to_string((at - fireAt) / 1000) + " us after fire_at";
            if (!dir.empty()) {
                const std::string path = dir + "/" + host + "/" + part.value("serial", "?") + "/" + name;
                expected.insert(path);
                line += "\t" + path;
            }
            std::cout << line << '\n';
        }
    for (const std::string& path : coordinator.AwaitFiles(expected))
        status = Say(kFailed, "picture " + path + " did not arrive");
    if (released > 0)
        std::cout << "spread: " << (last - first) / 1000 << " us over " << released << " cameras on " << results.size()
                  << " hosts\n";
    return std::max(status, ReportParts(results));
}

} // namespace

void AddRigCommands(CLI::App& app, int* status)
{
    CLI::App* rig = app.add_subcommand("rig", "A rig across hosts: the agents' cameras, through an MQTT broker");
    rig->require_subcommand(1);
    auto link = std::make_shared<RigLink>();

    CLI::App* show = rig->add_subcommand("status", "Hosts of the rig, their cameras, ready or not");
    AddLink(show, link.get());
    show->callback([=] { *status = Status(*link); });

    auto property = std::make_shared<std::string>();
    CLI::App* get = rig->add_subcommand("get", "A property of every camera of the rig (all without PROPERTY)");
    AddLink(get, link.get());
    get->add_option("PROPERTY", *property, "property name");
    get->callback([=] {
        json command = {{"op", "get"}};
        if (!property->empty())
            command["property"] = *property;
        *status = GetOrSet(*link, command);
    });

    auto assignment = std::make_shared<std::string>();
    CLI::App* set = rig->add_subcommand("set", "Set a property on every camera of the rig");
    AddLink(set, link.get());
    set->add_option("PROPERTY=VALUE", *assignment, "property and value")->required();
    set->callback([=] {
        const size_t equals = assignment->find('=');
        if (equals == std::string::npos) {
            *status = Say(kUsage, "\"" + *assignment + "\" is not PROPERTY=VALUE");
            return;
        }
        *status = GetOrSet(*link, {{"op", "set"}, {"property", assignment->substr(0, equals)},
                                   {"value", assignment->substr(equals + 1)}});
    });

    auto dir = std::make_shared<std::string>();
    auto lead = std::make_shared<int>(300);
    auto keep = std::make_shared<bool>(false);
    CLI::App* shoot = rig->add_subcommand("shoot", "Shoot every camera of the rig at one wall-clock instant");
    AddLink(shoot, link.get());
    shoot->add_option("--download", *dir, "bring every picture to DIR/<host>/<serial>/<name>")
        ->check(CLI::ExistingDirectory);
    shoot->add_option("--lead", *lead, "milliseconds from now to the shot (default 300)")->check(CLI::Range(1, 60000));
    shoot->add_flag("--keep", *keep, "leave downloaded pictures on the cards");
    shoot->callback([=] { *status = Shoot(*link, *dir, *lead, *keep); });
}

} // namespace qkcli
