// SPDX-License-Identifier: MIT
// Filling the value cache from a virtual camera of every model, and following
// the mode dial, the battery and the flag word.

#include <atomic>

#include "tests/common/ModelCameraTest.h"

namespace {

using namespace qktest;
using qksim::PtpCommand;
using qksim::PtpReply;

// What the cache must hold for a property, worked out from the camera's raw
// cases and the record, independently of the engine's code path.
int Expected(qksim::CameraSettings& settings, QKProp property, const ProperyConfig& config)
{
    if (property == QKProp::FlashPower) {
        int adjust = settings.PropCase(config.subId1);
        return adjust == 0 ? 0 : settings.PropCase(config.subId2) + 1;
    }
    if (property == QKProp::ManualFocusMode)
        return 1;
    int raw = settings.PropCase(config.cameraId);
    for (const ProperyValConfig& v : config.values)
        if (v.cameraValue == raw)
            return v.sdkValue;
    return -999;
}

class EveryModelLoad : public PropertyTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(EveryModelLoad, CacheMatchesTheCameraThroughTheRecord)
{
    Open(GetParam());
    // Move every readable case to the last value of its table, so the load
    // can't pass by reading the starting values. On SX40HS flash mode shares
    // its case with the flash adjust mode, which only takes 0 or 1.
    const auto& record = device->Record().properties;
    const int flashAdjustCase = record.at(QKProp::FlashPower).subId1;
    for (const auto& [property, config] : record)
        if (config.cameraId >= 0 && config.cameraId != flashAdjustCase &&
            config.writeKind != WriteKind_CaptureMode && !config.values.empty())
            Settings().SetPropCase(config.cameraId, config.values.back().cameraValue);
    Settings().SetZoomPosition(300);  // beyond every model's lens
    ASSERT_EQ(device->InitialLoadProperties(), QK_OK);

    for (const auto& [property, config] : device->Record().properties) {
        if (property == QKProp::BatteryLevel)
            continue;
        EXPECT_EQ(Value(property), Expected(Settings(), property, config)) << P(property);
    }
    // 3900 within 3000..4100 lies in band 2.
    int battery = -1;
    const bool hasBattery = device->Record().properties.count(QKProp::BatteryLevel) != 0;
    EXPECT_EQ(device->GetPropertyData(P(QKProp::BatteryLevel), &battery), hasBattery ? QK_OK : QK_UNKNOWN_PROPERTY);
    EXPECT_EQ(battery, hasBattery ? 2 : -1);
    EXPECT_EQ(VendorCalls(*camera, PTP_QKM_GetVBat).size(), hasBattery ? 1u : 0u);
    // One case read per plain property, none for the manual-focus switch.
    for (const VendorCall& call : VendorCalls(*camera, PTP_QKM_GetPropCase))
        EXPECT_EQ(call.second.at(1), 1u);

    int zoom = -1;
    ASSERT_EQ(device->PTPGetZoom(&zoom), QK_OK);
    EXPECT_EQ(zoom, device->Record().maxZoom);

    // A model without a battery never asks for the voltage and calls it unknown.
    if (!hasBattery) {
        EXPECT_EQ(device->ReadBatteryLevel(false), QK_OK);
        EXPECT_EQ(device->ReadVoltage(), 0);
        EXPECT_TRUE(VendorCalls(*camera, PTP_QKM_GetVBat).empty());
        LogMark mark;
        EXPECT_EQ(device->SetPropertyData(P(QKProp::BatteryLevel), 1), QK_UNKNOWN_PROPERTY);
        EXPECT_EQ(mark.Count("Unknown property: 13"), 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Models, EveryModelLoad,
                         ::testing::Values("A1400", "A2200", "A4000", "A495", "A800", "A810", "G15",
                                           "IXUS145", "IXUS160", "IXUS170", "SX130", "SX150", "SX160",
                                           "SX170", "SX40HS", "SX400IS", "SX410IS", "SX500", "SX510",
                                           "SX520"),
                         [](const ::testing::TestParamInfo<const char*>& info) { return std::string(info.param); });

TEST_F(PropertyTest, UnknownRawCasesFailTheLoadWithTheirLogLines)
{
    Open("SX160");
    const int mode = Settings().PropCase(49);
    Settings().SetPropCase(49, 12345);
    LogMark mark;
    EXPECT_EQ(device->InitialLoadProperties(), QK_ERROR);
    EXPECT_EQ(mark.Count("Unsupported camera mode: 12345. Check camera mode (menu or mode wheel). Use A, P, "
                         "M, Av or Tv mode."),
              1);
    int value = 0;
    EXPECT_EQ(device->GetPropertyData(P(QKProp::ShootingMode), &value), QK_UNKNOWN_PROPERTY);

    Settings().SetPropCase(49, mode);
    Settings().SetPropCase(157, 9); // metering mode
    EXPECT_EQ(device->InitialLoadProperties(), QK_ERROR);
    EXPECT_EQ(mark.Count("Unknown property value: 3 9"), 1);
    // What was read before the failure stays.
    EXPECT_EQ(Value(QKProp::ShootingMode), 1);
}

TEST_F(PropertyTest, FlashPowerComesFromTwoCasesInTheirRange)
{
    struct Case {
        int adjust, output;
        QKResult result;
        int expected;
        const char* log;
    } cases[] = {
        {0, 2, QK_OK, 0, nullptr}, {1, 0, QK_OK, 1, nullptr}, {1, 1, QK_OK, 2, nullptr}, {1, 2, QK_OK, 3, nullptr},
        {5, 0, QK_ERROR, 0, "Unknown value of FlashAdjustMode property"},
        {1, 3, QK_ERROR, 0, "Unknown value of FlashManualOutput property"},
    };
    Open("SX160");
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.adjust) + " " + std::to_string(c.output));
        Settings().SetPropCase(121, c.adjust);
        Settings().SetPropCase(141, c.output);
        LogMark mark;
        ASSERT_EQ(device->InitialLoadProperties(), c.result);
        if (c.log) {
            EXPECT_EQ(mark.Count(c.log), 1);
            EXPECT_EQ(mark.Count("LoadFlashPowerProp failed"), 1);
        } else {
            EXPECT_EQ(Value(QKProp::FlashPower), c.expected);
        }
    }

    // The second read failing leaves Flash Power unset.
    Settings().SetPropCase(141, 0);
    camera->SetVendorHandler(PTP_QKM_GetPropCase, [this](const PtpCommand& c) {
        return c.params.at(1) == 141 ? qksim::RefusalReply(0x2005)
                                     : qksim::WordsReply({camera->Settings().PropCase(static_cast<int>(c.params[1]))});
    });
    Reopen();
    LogMark mark;
    EXPECT_EQ(device->InitialLoadProperties(), QK_ERROR);
    int value = 0;
    EXPECT_EQ(device->GetPropertyData(P(QKProp::FlashPower), &value), QK_UNKNOWN_PROPERTY);
    EXPECT_EQ(mark.Count("LoadFlashPowerProp: PTPReadPropety 2 failed"), 1);
}

TEST_F(PropertyTest, ModeDialChangeIsTakenOverAndAnnouncedOnce)
{
    Open("SX160", true);
    LogMark mark;
    ASSERT_EQ(device->ReadCameraMode(), QK_OK);
    EXPECT_TRUE(device->Hooks().empty());
    EXPECT_EQ(mark.Since(), "");

    Settings().SetPropCase(49, 32769); // Manual
    ASSERT_EQ(device->ReadCameraMode(), QK_OK);
    ASSERT_EQ(device->ReadCameraMode(), QK_OK);
    EXPECT_EQ(device->Hooks(), std::vector<std::string>{"changed 0"});
    EXPECT_EQ(mark.Count("Camera mode changed to 2", "INF"), 1);
    EXPECT_EQ(Value(QKProp::ShootingMode), 2);

    Settings().SetPropCase(49, 777);
    EXPECT_EQ(device->ReadCameraMode(), QK_ERROR);
    EXPECT_EQ(Value(QKProp::ShootingMode), 2);
}

TEST_F(PropertyTest, BatteryBandsAlarmsAndOneEventPerChangeOfAFallingBattery)
{
    Open("SX160");
    struct Case {
        int voltage;
        QKResult result;
        int level;
    } cases[] = {
        {3199, QK_LOW_BATTERY, -1}, {3200, QK_OK, 0}, {3449, QK_OK, 0}, {3452, QK_OK, 1},
        {3699, QK_OK, 1},           {3701, QK_OK, 2}, {3951, QK_OK, 3}, {4000, QK_OK, 3},
        {4001, QK_OK, 4},
    };
    for (const Case& c : cases) {
        Settings().SetBattery(c.voltage, 4000, 3000);
        device->ClearHooks();
        EXPECT_EQ(device->ReadBatteryLevel(true), c.result) << c.voltage;
        if (c.level >= 0) {
            int level = -1;
            ASSERT_EQ(device->GetPropertyData(P(QKProp::BatteryLevel), &level), QK_OK);
            EXPECT_EQ(level, c.level) << c.voltage;
        }
        // The first level of a filter comes with no event.
        EXPECT_TRUE(device->Hooks().empty()) << c.voltage;
    }

    Settings().SetBattery(3900, 4000, 3000);
    ASSERT_EQ(device->ReadBatteryLevel(true), QK_OK);
    ASSERT_EQ(device->ReadBatteryLevel(false), QK_OK);
    EXPECT_TRUE(device->Hooks().empty());

    // The average follows slowly: many samples at 3300 bring it down through
    // the bands, each crossing announced once.
    Settings().SetBattery(3300, 4000, 3000);
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(device->ReadBatteryLevel(false), QK_OK);
    EXPECT_EQ(device->Hooks(), (std::vector<std::string>{"changed 13", "changed 13"}));
    EXPECT_EQ(Value(QKProp::BatteryLevel), 0);

    // A DC supply shows at once, whatever the average.
    Settings().SetBattery(4500, 4000, 3000);
    device->ClearHooks();
    ASSERT_EQ(device->ReadBatteryLevel(false), QK_OK);
    EXPECT_EQ(device->Hooks(), std::vector<std::string>{"changed 13"});
    EXPECT_EQ(Value(QKProp::BatteryLevel), 4);
}

TEST_F(PropertyTest, ShortRepliesFailWithoutReadingBeyondThem)
{
    Open("SX160", true);
    // Two words where three are taken.
    AnswerVendor(PTP_QKM_GetVBat, qksim::DataReply({1, 2, 3, 4, 5, 6, 7, 8}));
    LogMark mark;
    EXPECT_EQ(device->ReadBatteryLevel(false), QK_ERROR);
    EXPECT_EQ(mark.Count("PTPQKMGet: reply of 8 bytes, 3 words expected"), 1);
    EXPECT_EQ(mark.Count("PTP_QKM_GetVBat failed"), 1);

    for (uint32_t sub : {PTP_QKM_GetPropCase, PTP_QKM_GetCamProperty})
        AnswerVendor(sub, qksim::DataReply({1, 2}));
    int raw = 77;
    EXPECT_EQ(device->PTPReadPropety(49, &raw), QK_ERROR);
    EXPECT_EQ(raw, 77);
    EXPECT_EQ(device->LoadCameraFlags(), QK_ERROR);
}

TEST_F(PropertyTest, VoltageLoggingOnlyWhenTheHookSaysSo)
{
    struct Logging : RecordingCamera {
        using RecordingCamera::RecordingCamera;
        bool IsVoltageLogging() override { return true; }
    };
    Open("SX160");
    LogMark mark;
    device->LogVoltage("before PTP_QKM_Shoot");
    EXPECT_TRUE(camera->ReceivedCommands().empty());

    auto logging = Reopen<Logging>();
    Settings().SetBattery(3777, 4000, 3000);
    logging->LogVoltage("before PTP_QKM_Shoot");
    logging->LogVoltage(nullptr);
    EXPECT_EQ(mark.Count("Voltage: 3777 (before PTP_QKM_Shoot)", "INF"), 1);
    EXPECT_EQ(mark.Count("Voltage: 3777", "INF"), 2);
}

TEST_F(PropertyTest, DefaultFocusCasesPerModel)
{
    const std::pair<const char*, std::vector<VendorCall>> models[] = {
        {"A1400", {}},
        {"SX170", {{Set, {8, 1}}, {Set, {298, 0}}, {Set, {348, 0}}, {Set, {145, 2}}}},
        {"SX160", {{Set, {8, 1}}, {Set, {299, 0}}, {Set, {349, 0}}, {Set, {145, 4}}}},
    };
    for (const auto& [model, calls] : models) {
        TearDown();
        Open(model);
        ASSERT_EQ(device->SetDefaultSDKFocus(), QK_OK);
        EXPECT_EQ(VendorCalls(*camera), calls) << model;
    }
    // The third write refused: the sequence stops there.
    camera->ClearRecords();
    // Static and atomic: the camera's thread counts, and no stack slot of
    // this test is reused under it once the body has returned.
    static std::atomic<int> writes;
    writes = 0;
    camera->SetVendorHandler(Set, [](const PtpCommand&) {
        return ++writes == 3 ? qksim::RefusalReply(0x2005) : PtpReply{};
    });
    LogMark mark;
    EXPECT_EQ(device->SetDefaultSDKFocus(), QK_ERROR);
    EXPECT_EQ(VendorCalls(*camera).size(), 3u);
    EXPECT_EQ(mark.Count("SetDefaultSDKFocus failed on 349 0"), 1);
}

TEST_F(PropertyTest, FlagWordEditsOnlyThisObjectsRecordAndOnlyWhatItHas)
{
    Open("SX160");
    auto twin = AddCamera("SX160", "QKS0002");
    auto other = std::make_shared<RecordingCamera>(usb, twin->Path());
    ASSERT_EQ(other->Init(), QK_OK);

    Settings().SetFlagWord(0x5); // bit 1 clear: no manual focus on this one
    ASSERT_EQ(device->LoadCameraFlags(), QK_OK);
    EXPECT_TRUE(device->FlagBit0());
    EXPECT_TRUE(device->FlagBit2());
    EXPECT_EQ(device->Record().properties.count(QKProp::ManualFocusMode), 0u);
    EXPECT_EQ(other->Record().properties.count(QKProp::ManualFocusMode), 1u);
    CameraConfig fromTable;
    ASSERT_TRUE(findCameraConfig(&fromTable, L"SX160"));
    EXPECT_EQ(fromTable.properties.count(QKProp::ManualFocusMode), 1u);

    Load();
    QKProp_Desc* desc = nullptr;
    EXPECT_EQ(device->GetPropertyDesc(P(QKProp::ManualFocusMode), &desc), QK_UNKNOWN_PROPERTY);
    int value = 0;
    EXPECT_EQ(device->GetPropertyData(P(QKProp::ManualFocusMode), &value), QK_UNKNOWN_PROPERTY);

    // A model without manual focus has nothing to take out.
    other.reset();
    TearDown();
    Open("A1400");
    const size_t before = device->Record().properties.size();
    Settings().SetFlagWord(0);
    EXPECT_EQ(device->LoadCameraFlags(), QK_OK);
    EXPECT_FALSE(device->FlagBit0());
    EXPECT_EQ(device->Record().properties.size(), before);
}

} // namespace
