// SPDX-License-Identifier: MIT
#pragma once
// The settings side of a virtual camera: its property cases as raw values,
// the mode, the module version, the event word, the battery, the flag word
// and the zoom position. Handlers on the bus thread and tests on their own
// threads share it, so every member is behind one lock.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

struct CameraConfig;

namespace qksim {

class CameraSettings {
public:
    // Starts every property case of the model at a valid value, so that an
    // engine can load the camera as it comes.
    explicit CameraSettings(const std::string& model, const std::string& product);

    // Property cases, raw as the camera holds them.
    int32_t PropCase(int caseNumber) const;
    void SetPropCase(int caseNumber, int32_t raw);
    bool HasPropCase(int caseNumber) const;
    // The case that shows the mode dial (the shooting mode), -1 if none.
    int ShootingModeCase() const { return shootingModeCase; }

    // Record mode is reported after this many polls of the mode (0: at once).
    void SetRecordModeAfterPolls(int polls);
    int PollMode(); // one poll: 1 in record mode, 0 before

    void SetModuleVersion(const std::string& version);
    std::string ModuleVersion() const;

    // Bits raised once: the next read of the event word reports them, then
    // they are gone. Sources add bits computed when the word is read (a
    // motor that has arrived, a shot that is done).
    void RaiseEvents(uint32_t bits);
    void AddEventSource(std::function<uint32_t()> source);
    uint32_t TakeEvents();

    // Battery words: voltage, top and bottom of the battery range. A drain
    // lowers the voltage by that much after each read (a falling battery);
    // a voltage above `full` is what a DC supply looks like.
    void SetBattery(int32_t voltage, int32_t full, int32_t empty, int32_t drainPerRead = 0);
    std::vector<int32_t> ReadBattery();

    void SetFlagWord(uint32_t flags);
    uint32_t FlagWord() const;

    // Where the lens rests; while the zoom motor runs, the lens
    // (sim/CameraLens.h) answers where it is.
    void SetZoomPosition(int32_t position);
    int32_t ZoomPosition() const;

    // Single commands the camera received and acted on, in order (by sub-command).
    std::vector<uint32_t> Commands() const;
    void NoteCommand(uint32_t subCommand);
    bool ManualFocusOn() const;
    void SetManualFocus(bool on);

private:
    mutable std::mutex mutex;
    std::map<int, int32_t> cases;
    int shootingModeCase = -1;
    int recordModeAfter = 0;
    int modePolls = 0;
    std::string version = "1.2.3.4";
    uint32_t pendingEvents = 0;
    std::vector<std::function<uint32_t()>> eventSources;
    int32_t voltage = 3900, full = 4100, empty = 3000, drain = 0;
    uint32_t flagWord = 0x7; // manual focus offered
    int32_t zoom = 0;
    std::vector<uint32_t> commands;
    bool manualFocus = false;
};

class PtpResponder;

// The model's record: by its name first, then as the engine finds it.
bool FindModelRecord(const std::string& model, const std::string& product, CameraConfig* out);

// The vendor sub-commands that read and change these settings.
void InstallSettingsOperations(PtpResponder& responder, const std::shared_ptr<CameraSettings>& settings);

} // namespace qksim
