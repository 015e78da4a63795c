// SPDX-License-Identifier: MIT
#pragma once
// The command trace of a process's virtual cameras: one JSON line per
// command container a camera receives, written as it arrives, so a program
// can see what it sent and when (and a rig how close its shots were).

#include <string>

#include "sim/VirtualBus.h"

namespace qksim {

class CommandTrace {
public:
    // Starts writing to `path` (truncated); false with errno when it can't be opened.
    static bool Open(const std::string& path);
    static void Close();
    // No-op unless a trace is open. Any thread.
    static void Write(const std::string& serial, const PtpCommand& command);
    // One line: {"serial":..,"operation":..,"subCommand":..|null,"ns":..}.
    static std::string Line(const std::string& serial, const PtpCommand& command);
};

} // namespace qksim
