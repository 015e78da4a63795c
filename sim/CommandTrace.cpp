// SPDX-License-Identifier: MIT
#include "sim/CommandTrace.h"

#include <cstdio>
#include <mutex>

#include <nlohmann/json.hpp>

#include "sim/PtpContainer.h"

namespace qksim {

namespace {

std::mutex traceMutex;
FILE* traceFile = nullptr; // guarded by traceMutex

} // namespace

bool CommandTrace::Open(const std::string& path)
{
    std::lock_guard<std::mutex> lock(traceMutex);
    if (traceFile)
        std::fclose(traceFile);
    traceFile = std::fopen(path.c_str(), "w");
    return traceFile != nullptr;
}

void CommandTrace::Close()
{
    std::lock_guard<std::mutex> lock(traceMutex);
    if (traceFile)
        std::fclose(traceFile);
    traceFile = nullptr;
}

std::string CommandTrace::Line(const std::string& serial, const PtpCommand& command)
{
    nlohmann::ordered_json line;
    line["serial"] = serial;
    line["operation"] = command.code;
    const bool vendor = command.code == ptp::OC_Vendor && !command.params.empty();
    line["subCommand"] = vendor ? nlohmann::ordered_json(command.params[0]) : nlohmann::ordered_json();
    line["ns"] = command.arrivalNs;
    return line.dump();
}

void CommandTrace::Write(const std::string& serial, const PtpCommand& command)
{
    std::lock_guard<std::mutex> lock(traceMutex);
    if (!traceFile)
        return;
    const std::string line = Line(serial, command);
    std::fprintf(traceFile, "%s\n", line.c_str());
    // A reader follows the file while the cameras run.
    std::fflush(traceFile);
}

} // namespace qksim
