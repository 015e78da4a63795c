// SPDX-License-Identifier: MIT
// qkcam: every camera task from the shell, for one camera or many at once.
// Exit status: 0 success, 1 a camera operation failed, 2 bad usage, 3 no
// camera (or none with that serial).

#include <iostream>

#include "DevicePTP/Version.h"
#include "log/Log.h"
#include "tool/qkcam/Cli.h"

namespace qkcli {

namespace {
std::string mainLog = "/tmp/qkdll.log"; // the logger's own default
}

std::string MainLogPath() { return mainLog; }

} // namespace qkcli

int main(int argc, char** argv)
{
    CLI::App app("Remote control of compact cameras over USB", "qkcam");
    app.set_version_flag("--version", std::string("qkcam ") + qkcamVersion());
    app.require_subcommand(1);
    std::string logDir;
    bool verbose = false;
    app.add_option("--log-dir", logDir, "write the engine's logs into DIR")->check(CLI::ExistingDirectory);
    app.add_flag("--verbose", verbose, "log lines on the console too");
    int status = qkcli::kOk;
    qkcli::AddSettingCommands(app, &status);
    qkcli::AddShotCommands(app, &status);
    qkcli::AddLensCommands(app, &status);
    qkcli::AddRigCommands(app, &status);
    // The logger is set up before any subcommand runs.
    app.parse_complete_callback([&] {
        if (logDir.empty()) {
            LoggerSpecialInit(verbose);
        } else {
            qkcli::mainLog = logDir + "/qkdll.log";
            LoggerSpecialInit(verbose, qkcli::mainLog, logDir + "/qkdll_api.log");
        }
    });
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int code = app.exit(error);
        return code == 0 ? qkcli::kOk : qkcli::kUsage;
    }
    return status;
}
