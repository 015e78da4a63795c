// SPDX-License-Identifier: MIT
#include "sim/CameraSettings.h"

#include <algorithm>
#include <cwctype>
#include <memory>

#include "models/CameraDB.h"
#include "sim/PtpContainer.h"
#include "sim/PtpReplies.h"
#include "sim/PtpResponder.h"
#include "usb/UsbLib.h"

namespace qksim {

bool FindModelRecord(const std::string& model, const std::string& product, CameraConfig* out)
{
    const std::wstring wideModel = strToWstr(model);
    for (const CameraConfig& record : cameraDB)
        if (record.name == wideModel) {
            *out = record;
            return true;
        }
    // A short name: SX40 for SX40HS, the record's name followed by letters only
    // (so SX40 never stands for SX400IS).
    for (const CameraConfig& record : cameraDB) {
        const std::wstring& name = record.name;
        if (!wideModel.empty() && name.compare(0, wideModel.size(), wideModel) == 0 &&
            std::all_of(name.begin() + static_cast<long>(wideModel.size()), name.end(),
                        [](wchar_t c) { return std::iswalpha(c) != 0; })) {
            *out = record;
            return true;
        }
    }
    return findCameraConfig(out, strToWstr(product)) || findCameraConfig(out, wideModel);
}

namespace {

// A value a camera of this model shows when switched on.
int32_t StartingRaw(QKProp property, const ProperyConfig& config)
{
    // Program mode, fine quality, no compensation; the first value elsewhere.
    static const std::map<QKProp, int> preferred = {
        {QKProp::ShootingMode, static_cast<int>(QKProp_ShootingMode::Program)},
        {QKProp::JpegQuality, 1},
        {QKProp::ExposureComp, 200},
        {QKProp::FlashComp, 200},
    };
    auto wanted = preferred.find(property);
    if (wanted != preferred.end())
        for (const ProperyValConfig& v : config.values)
            if (v.sdkValue == wanted->second)
                return v.cameraValue;
    return config.values.empty() ? 0 : config.values.front().cameraValue;
}

} // namespace

CameraSettings::CameraSettings(const std::string& model, const std::string& product)
{
    CameraConfig record;
    if (!FindModelRecord(model, product, &record))
        return;
    for (const auto& [property, config] : record.properties) {
        if (property == QKProp::ShootingMode)
            shootingModeCase = config.cameraId;
        switch (config.writeKind) {
        case WriteKind_FlashPower:
            cases[config.subId1] = 0; // automatic flash output
            cases[config.subId2] = 0;
            break;
        case WriteKind_ManualFocus:
            break;
        default: {
            const int32_t raw = StartingRaw(property, config);
            if (config.cameraId >= 0)
                cases[config.cameraId] = raw;
            if (config.writeKind == WriteKind_SubPropery || config.writeKind == WriteKind_SubPropery2)
                cases[config.subId1] = raw;
            if (config.writeKind == WriteKind_SubPropery2)
                cases[config.subId2] = raw;
        }
        }
    }
}

int32_t CameraSettings::PropCase(int caseNumber) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto found = cases.find(caseNumber);
    return found == cases.end() ? 0 : found->second;
}

void CameraSettings::SetPropCase(int caseNumber, int32_t raw)
{
    std::lock_guard<std::mutex> lock(mutex);
    cases[caseNumber] = raw;
}

bool CameraSettings::HasPropCase(int caseNumber) const
{
    std::lock_guard<std::mutex> lock(mutex);
    return cases.count(caseNumber) != 0;
}

void CameraSettings::SetRecordModeAfterPolls(int polls)
{
    std::lock_guard<std::mutex> lock(mutex);
    recordModeAfter = polls;
    modePolls = 0;
}

int CameraSettings::PollMode()
{
    std::lock_guard<std::mutex> lock(mutex);
    return modePolls++ >= recordModeAfter ? 1 : 0;
}

void CameraSettings::SetModuleVersion(const std::string& text)
{
    std::lock_guard<std::mutex> lock(mutex);
    version = text;
}

std::string CameraSettings::ModuleVersion() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return version;
}

void CameraSettings::RaiseEvents(uint32_t bits)
{
    std::lock_guard<std::mutex> lock(mutex);
    pendingEvents |= bits;
}

void CameraSettings::AddEventSource(std::function<uint32_t()> source)
{
    std::lock_guard<std::mutex> lock(mutex);
    eventSources.push_back(std::move(source));
}

uint32_t CameraSettings::TakeEvents()
{
    std::vector<std::function<uint32_t()>> sources;
    uint32_t bits = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        bits = pendingEvents;
        pendingEvents = 0;
        sources = eventSources;
    }
    // Sources take locks of their own; they run outside this one.
    for (const auto& source : sources)
        bits |= source();
    return bits;
}

void CameraSettings::SetBattery(int32_t v, int32_t top, int32_t bottom, int32_t drainPerRead)
{
    std::lock_guard<std::mutex> lock(mutex);
    voltage = v;
    full = top;
    empty = bottom;
    drain = drainPerRead;
}

std::vector<int32_t> CameraSettings::ReadBattery()
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<int32_t> words{voltage, full, empty};
    voltage -= drain;
    return words;
}

void CameraSettings::SetFlagWord(uint32_t flags)
{
    std::lock_guard<std::mutex> lock(mutex);
    flagWord = flags;
}

uint32_t CameraSettings::FlagWord() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return flagWord;
}

void CameraSettings::SetZoomPosition(int32_t position)
{
    std::lock_guard<std::mutex> lock(mutex);
    zoom = position;
}

int32_t CameraSettings::ZoomPosition() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return zoom;
}

std::vector<uint32_t> CameraSettings::Commands() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return commands;
}

void CameraSettings::NoteCommand(uint32_t subCommand)
{
    std::lock_guard<std::mutex> lock(mutex);
    commands.push_back(subCommand);
}

bool CameraSettings::ManualFocusOn() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return manualFocus;
}

void CameraSettings::SetManualFocus(bool on)
{
    std::lock_guard<std::mutex> lock(mutex);
    manualFocus = on;
}

void InstallSettingsOperations(PtpResponder& responder, const std::shared_ptr<CameraSettings>& settings)
{
    auto with = [&settings](auto body) { return ForPart(settings, body); };

    responder.SetBuiltinVendor(ptp::QKM_GetPropCase, with([](CameraSettings& s, const PtpCommand& c) {
        if (c.params.size() < 2 || !s.HasPropCase(static_cast<int>(c.params[1])))
            return RefusalReply(ptp::RC_InvalidParameter);
        return WordsReply({s.PropCase(static_cast<int>(c.params[1]))});
    }));
    responder.SetBuiltinVendor(ptp::QKM_SetPropCase, with([](CameraSettings& s, const PtpCommand& c) {
        if (c.params.size() < 3)
            return RefusalReply(ptp::RC_InvalidParameter);
        s.SetPropCase(static_cast<int>(c.params[1]), static_cast<int32_t>(c.params[2]));
        return PtpReply{};
    }));
    responder.SetBuiltinVendor(ptp::QKM_SetCaptureMode, with([](CameraSettings& s, const PtpCommand& c) {
        if (c.params.size() < 2 || s.ShootingModeCase() < 0)
            return RefusalReply(ptp::RC_InvalidParameter);
        // The new mode shows at once in the mode case, as the dial would.
        s.SetPropCase(s.ShootingModeCase(), static_cast<int32_t>(c.params[1]));
        return PtpReply{};
    }));
    responder.SetBuiltinVendor(ptp::QKM_GetMode, with([](CameraSettings& s, const PtpCommand&) {
        return WordsReply({s.PollMode()});
    }));
    responder.SetBuiltinVendor(ptp::QKM_GetQKmVersion, with([](CameraSettings& s, const PtpCommand&) {
        PtpReply reply;
        reply.hasData = true;
        std::string text = s.ModuleVersion();
        reply.data.assign(text.begin(), text.end());
        reply.data.push_back(0);
        return reply;
    }));
    responder.SetBuiltinVendor(ptp::QKM_GetEvents, with([](CameraSettings& s, const PtpCommand&) {
        return WordsReply({static_cast<int32_t>(s.TakeEvents())});
    }));
    responder.SetBuiltinVendor(ptp::QKM_GetVBat, with([](CameraSettings& s, const PtpCommand&) {
        return WordsReply(s.ReadBattery());
    }));
    responder.SetBuiltinVendor(ptp::QKM_GetCamProperty, with([](CameraSettings& s, const PtpCommand&) {
        return WordsReply({static_cast<int32_t>(s.FlagWord())});
    }));
    for (uint32_t single : {ptp::QKM_EnableLCD, ptp::QKM_EnableKbd, ptp::QKM_PowerDown, ptp::QKM_Reset}) {
        responder.SetBuiltinVendor(single, with([single](CameraSettings& s, const PtpCommand&) {
            s.NoteCommand(single);
            return PtpReply{};
        }));
    }
    for (uint32_t focus : {ptp::QKM_MfOn, ptp::QKM_MfOff}) {
        responder.SetBuiltinVendor(focus, with([focus](CameraSettings& s, const PtpCommand&) {
            s.NoteCommand(focus);
            s.SetManualFocus(focus == ptp::QKM_MfOn);
            return PtpReply{};
        }));
    }
}

} // namespace qksim
