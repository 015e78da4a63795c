// SPDX-License-Identifier: MIT
// qkcam-agent: one host's cameras in a rig across hosts, over MQTT.

#include <CLI/CLI.hpp>
#include <signal.h>
#include <unistd.h>

#include <climits>
#include <iostream>

#include "DevicePTP/Version.h"
#include "log/Log.h"
#include "tool/agent/Agent.h"

namespace {

std::atomic<bool> stopping{false};

void OnSignal(int) { stopping = true; }

std::string HostName()
{
    char name[HOST_NAME_MAX + 1] = {};
    return gethostname(name, sizeof(name) - 1) == 0 && name[0] ? name : "host";
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app("Serves this host's cameras to a rig across hosts, over an MQTT broker", "qkcam-agent");
    app.set_version_flag("--version", std::string("qkcam-agent ") + qkcamVersion());
    qkagent::AgentOptions options;
    options.host = HostName();
    std::string broker = "localhost", passwordFile, logDir;
    bool verbose = false;
    app.add_option("--broker", broker, "the broker, HOST[:PORT] (1883 by default)");
    app.add_option("--rig", options.rig, "the rig's name: topics qkcam/RIG/...")->required();
    app.add_option("--host-name", options.host, "this host's name in the rig (default: the machine's)");
    app.add_option("--username", options.broker.username, "user name at the broker");
    app.add_option("--password-file", passwordFile, "a file whose first line is the password")
        ->check(CLI::ExistingFile);
    app.add_option("--tls-ca", options.broker.tlsCa, "CA certificate: connect over TLS")->check(CLI::ExistingFile);
    app.add_option("--tls-cert", options.broker.tlsCert, "client certificate")->check(CLI::ExistingFile);
    app.add_option("--tls-key", options.broker.tlsKey, "client key")->check(CLI::ExistingFile);
    app.add_option("--download-dir", options.downloadDir, "also keep every new picture in DIR/<serial>/")
        ->check(CLI::ExistingDirectory);
    app.add_option("--log-dir", logDir, "write the engine's logs into DIR")->check(CLI::ExistingDirectory);
    app.add_flag("--verbose", verbose, "log lines on the console too");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : 2;
    }
    std::string error;
    if (!qkmqtt::ParseBroker(broker, &options.broker, &error) ||
        (!passwordFile.empty() && !qkmqtt::ReadPassword(passwordFile, &options.broker.password, &error)) ||
        !qkmqtt::IsTopicLevel(options.rig) || !qkmqtt::IsTopicLevel(options.host)) {
        std::cerr << "qkcam-agent: " << (error.empty() ? "rig and host names can't hold '/', '+' or '#'" : error)
                  << std::endl;
        return 2;
    }
    if (logDir.empty())
        LoggerSpecialInit(verbose);
    else
        LoggerSpecialInit(verbose, logDir + "/qkdll.log", logDir + "/qkdll_api.log");
    struct sigaction action {};
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    qkagent::Agent agent(options);
    return agent.Run(stopping);
}
