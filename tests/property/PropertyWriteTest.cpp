// SPDX-License-Identifier: MIT
// Writing properties: the checks, the constraints, the dependent change, the
// writes on the wire by write kind, and the order of hooks; then the queries.

#include <atomic>
#include <thread>

#include "tests/common/ModelCameraTest.h"

namespace {

using namespace qktest;
using qksim::PtpCommand;

class PropertyWriteTest : public PropertyTest {
protected:
    void LoadSX160() { Open("SX160", true); }
    std::vector<VendorCall> Writes() { return VendorCalls(*camera); }
};

TEST_F(PropertyWriteTest, WritesCarryTheRawValueByKind)
{
    LoadSX160();
    ASSERT_EQ(device->SetPropertyData(P(QKProp::MeteringMode), 2), QK_OK);
    // "+1" is 96 on this camera: -2 is 65344, and nine thirds of a stop later it wraps.
    ASSERT_EQ(device->SetPropertyData(P(QKProp::ExposureComp), 300), QK_OK);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::RedEyeMode), 0), QK_OK);
    for (int power : {3, 0, 1})
        ASSERT_EQ(device->SetPropertyData(P(QKProp::FlashPower), power), QK_OK);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::ManualFocusMode), 0), QK_OK);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::ManualFocusMode), 1), QK_OK);
    EXPECT_EQ(Writes(), (std::vector<VendorCall>{{Set, {157, 2}},  {Set, {107, 96}}, {Set, {211, 96}},
                                                 {Set, {220, 1}},  {Set, {217, 1}},  {Set, {121, 1}},
                                                 {Set, {141, 2}},  {Set, {121, 0}},  {Set, {121, 1}},
                                                 {Set, {141, 0}},  {PTP_QKM_MfOn, {}}, {PTP_QKM_MfOff, {}}}));
    // Unchanged values are written again.
    camera->ClearRecords();
    ASSERT_EQ(device->SetPropertyData(P(QKProp::MeteringMode), 2), QK_OK);
    EXPECT_EQ(Writes().size(), 1u);

    // Red eye on a model that writes it to three cases.
    TearDown();
    Open("A810", true);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::RedEyeMode), 1), QK_OK);
    EXPECT_EQ(Writes(), (std::vector<VendorCall>{{Set, {220, 0}}, {Set, {217, 0}}, {Set, {5, 0}}}));
}

TEST_F(PropertyWriteTest, ShootingModeGoesAsCaptureModeAndOnlyWhenItChanges)
{
    LoadSX160();
    ASSERT_EQ(device->SetPropertyData(P(QKProp::ShootingMode), 1), QK_OK); // already Program
    EXPECT_TRUE(Writes().empty());
    EXPECT_TRUE(device->Hooks().empty());
    ASSERT_EQ(device->SetPropertyData(P(QKProp::ShootingMode), 2), QK_OK);
    EXPECT_EQ(Writes(), (std::vector<VendorCall>{{PTP_QKM_SetCaptureMode, {32769}}}));
    // The camera shows the new mode where the dial shows it.
    EXPECT_EQ(Settings().PropCase(49), 32769);
    ASSERT_EQ(device->ReadCameraMode(), QK_OK);
    EXPECT_EQ(device->Hooks(), std::vector<std::string>{"list"});
}

TEST_F(PropertyWriteTest, ConstraintsFollowTheShootingModeAndMyColors)
{
    LoadSX160();
    LogMark mark;
    EXPECT_EQ(device->SetPropertyData(P(QKProp::Contrast), 3), QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(device->SetPropertyData(P(QKProp::Av), 56), QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(mark.Count("Property set constraint failed: 8 56"), 1);
    EXPECT_TRUE(Writes().empty());

    ASSERT_EQ(device->SetPropertyData(P(QKProp::ShootingMode), 3), QK_OK); // AV
    EXPECT_EQ(device->Hooks(), std::vector<std::string>{"list"});
    EXPECT_EQ(mark.Count("Property list changed", "INF"), 1);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::Av), 56), QK_OK);
    EXPECT_EQ(Settings().PropCase(26), 480);
    // Tv stays barred in AV.
    EXPECT_EQ(device->SetPropertyData(P(QKProp::Tv), 150000), QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(mark.Count("Property set constraint failed: 9 150000"), 1);
    // Custom colour opens the colour properties.
    ASSERT_EQ(device->SetPropertyData(P(QKProp::MyColors), 11), QK_OK);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::Contrast), 3), QK_OK);
    EXPECT_EQ(Settings().PropCase(59), 1);
}

TEST_F(PropertyWriteTest, LargeImageMovesSuperfineToFineFirstAndARefusalKeepsTheCache)
{
    Open("SX160");
    Settings().SetPropCase(222, 1); // medium size
    Settings().SetPropCase(57, 0);  // superfine
    Load();
    // Refused at the first write: nothing rolled back, nothing announced.
    AnswerVendor(Set, qksim::RefusalReply(0x2005));
    LogMark mark;
    EXPECT_EQ(device->SetPropertyData(P(QKProp::ImageSize), 0), QK_ERROR);
    EXPECT_EQ(mark.Count("PTP_QKM_SetPropCase failed: 2 57 1"), 1);
    EXPECT_EQ(Value(QKProp::ImageSize), 0);
    EXPECT_EQ(Value(QKProp::JpegQuality), 1);
    EXPECT_TRUE(device->Hooks().empty());

    camera->SetVendorHandler(Set, {});
    Load();
    ASSERT_EQ(device->SetPropertyData(P(QKProp::ImageSize), 0), QK_OK);
    EXPECT_EQ(Writes(), (std::vector<VendorCall>{{Set, {57, 1}}, {Set, {222, 0}}}));
    EXPECT_EQ(device->Hooks(), (std::vector<std::string>{"changed 2", "list"}));
    EXPECT_EQ(mark.Count("Property changed: 2", "INF"), 1);
    EXPECT_EQ(Value(QKProp::JpegQuality), 1);

    EXPECT_EQ(device->SetPropertyData(P(QKProp::JpegQuality), 0), QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(mark.Count("Property set constraint failed: 2 0"), 1);
}

TEST_F(PropertyWriteTest, RefusalsNameTheirReason)
{
    LoadSX160();
    LogMark mark;
    EXPECT_EQ(device->SetPropertyData(P(QKProp::BatteryLevel), 99), QK_ERROR);
    EXPECT_EQ(mark.Count("failed to set read only property"), 1);
    EXPECT_EQ(device->SetPropertyData(12, 0), QK_UNKNOWN_PROPERTY);
    EXPECT_EQ(mark.Count("Unknown property: 12"), 1);
    // In the enumeration, not in this model's table.
    EXPECT_EQ(device->SetPropertyData(P(QKProp::ISOSpeed), 3200), QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(mark.Count("Unsupported property value: 7 3200"), 1);
    EXPECT_TRUE(Writes().empty());
}

TEST_F(PropertyWriteTest, ByNameGoesTheSameWay)
{
    LoadSX160();
    ASSERT_EQ(device->SetPropertyDataByName(P(QKProp::ExposureComp), "+1"), QK_OK);
    EXPECT_EQ(Writes(), (std::vector<VendorCall>{{Set, {107, 96}}, {Set, {211, 96}}}));
    LogMark mark;
    EXPECT_EQ(device->SetPropertyDataByName(P(QKProp::ExposureComp), "+7"), QK_UNSUPPORTED_VALUE);
    EXPECT_EQ(mark.Since(), "");
    EXPECT_EQ(device->SetPropertyDataByName(P(QKProp::Contrast), "+2"), QK_UNSUPPORTED_VALUE);
}

TEST_F(PropertyWriteTest, GuardHooksStopWritesAndQueries)
{
    struct Guarded : RecordingCamera {
        using RecordingCamera::RecordingCamera;
        QKResult GuardAll() override { return all != QK_OK ? all : RecordingCamera::GuardAll(); }
        QKResult all = QK_OK;
    };
    Open("SX160");
    auto guarded = Reopen<Guarded>();
    Load();
    guarded->guardResult = QK_NOT_READY;
    EXPECT_EQ(guarded->SetPropertyData(P(QKProp::MeteringMode), 1), QK_NOT_READY);
    EXPECT_TRUE(camera->ReceivedCommands().empty());
    guarded->guardResult = QK_OK;
    guarded->all = QK_NOT_READY;
    int value = -7;
    EXPECT_EQ(guarded->GetPropertyData(P(QKProp::MeteringMode), &value), QK_NOT_READY);
    EXPECT_EQ(value, -7);
}

TEST_F(PropertyWriteTest, HooksMayCallBackIntoTheObject)
{
    struct Reentrant : RecordingCamera {
        using RecordingCamera::RecordingCamera;
        void OnPropertyListChanged() override
        {
            int value = 0;
            seen = GetPropertyData(static_cast<int>(QKProp::ShootingMode), &value) == QK_OK ? value : -1;
        }
        int seen = -2;
    };
    Open("SX160");
    auto host = Reopen<Reentrant>();
    Load();
    // A hook running with the lock held would still see its own thread's
    // value; a second thread must get through as well.
    std::thread other([&] { EXPECT_EQ(host->SetPropertyData(P(QKProp::ShootingMode), 2), QK_OK); });
    other.join();
    EXPECT_EQ(host->seen, 2);
}

TEST_F(PropertyWriteTest, QueriesFromAnotherThreadSeeWholeWrites)
{
    LoadSX160();
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0};
    std::thread reader([&] {
        while (!stop) {
            int size = -1, quality = -1;
            device->GetPropertyData(P(QKProp::ImageSize), &size);
            device->GetPropertyData(P(QKProp::JpegQuality), &quality);
            QKProp_Desc* desc = nullptr;
            if (device->GetPropertyDesc(P(QKProp::JpegQuality), &desc) == QK_OK) {
                if (desc->count <= 0)
                    ++bad;
                device->FreePointer(desc);
            }
        }
    });
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(device->SetPropertyData(P(QKProp::JpegQuality), 0), i % 2 ? QK_OK : QK_UNSUPPORTED_VALUE);
        ASSERT_EQ(device->SetPropertyData(P(QKProp::ImageSize), i % 2 ? 0 : 1), QK_OK);
    }
    stop = true;
    reader.join();
    EXPECT_EQ(bad.load(), 0);
}

// Queries from the cache and the record: lists and descriptions under the
// constraints, extended size data, read-only flags, memory given back.
class PropertyQueryTest : public PropertyTest {
protected:
    std::vector<int> List()
    {
        int* props = nullptr;
        int count = -1;
        EXPECT_EQ(device->GetPropertyList(&props, &count), QK_OK);
        std::vector<int> list(props, props + count);
        device->FreePointer(props);
        return list;
    }
    std::vector<int> Values(QKProp property, QKProp_Desc** kept = nullptr)
    {
        QKProp_Desc* desc = nullptr;
        EXPECT_EQ(device->GetPropertyDesc(P(property), &desc), QK_OK);
        if (!desc)
            return {};
        std::vector<int> values(desc->values, desc->values + desc->count);
        if (kept)
            *kept = desc;
        else
            device->FreePointer(desc);
        return values;
    }
};

TEST_F(PropertyQueryTest, ListsAndValuesFollowTheConstraints)
{
    Open("SX160", true); // Program, Large, My Colors off
    // No Av, no Tv; no colour properties; no Superfine.
    EXPECT_EQ(List(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 10, 11, 13, 14, 15, 23, 24}));
    EXPECT_TRUE(Values(QKProp::Av).empty());
    EXPECT_EQ(Values(QKProp::JpegQuality), (std::vector<int>{1, 2}));
    // The cached aperture is there all the same.
    int av = 0;
    EXPECT_EQ(device->GetPropertyData(P(QKProp::Av), &av), QK_OK);

    ASSERT_EQ(device->SetPropertyData(P(QKProp::ShootingMode), 2), QK_OK);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::MyColors), 11), QK_OK);
    ASSERT_EQ(device->SetPropertyData(P(QKProp::ImageSize), 2), QK_OK);
    EXPECT_EQ(List(), (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 13, 14, 15, 16, 17, 18, 19,
                                        20, 21, 22, 23, 24}));
    EXPECT_EQ(Values(QKProp::Av), (std::vector<int>{35, 40, 45, 50, 56, 63, 71, 80}));
    EXPECT_EQ(Values(QKProp::JpegQuality), (std::vector<int>{0, 1, 2}));

    // Arrays go back once through FreePointer.
    int* props = nullptr;
    int count = 0;
    ASSERT_EQ(device->GetPropertyList(&props, &count), QK_OK);
    LogMark mark;
    device->FreePointer(props);
    EXPECT_EQ(mark.Count("FreePointer: unknown pointer"), 0);
    device->FreePointer(props);
    EXPECT_EQ(mark.Count("FreePointer: unknown pointer"), 1);
}

TEST_F(PropertyQueryTest, ImageSizesCarryWidthAndHeightAndValuesComeInTheModelsOrder)
{
    Open("A1400");
    QKProp_Desc* desc = nullptr;
    EXPECT_EQ(device->GetPropertyDesc(P(QKProp::Av), &desc), QK_UNKNOWN_PROPERTY); // not on this model
    Load();
    // The model's order, not numeric: Digital IS (22) before Portrait (9).
    EXPECT_EQ(Values(QKProp::ShootingMode),
              (std::vector<int>{0, 1, 8, 22, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20}));
    std::vector<int> sizes = Values(QKProp::ImageSize, &desc);
    ASSERT_NE(desc, nullptr);
    ASSERT_NE(desc->extended, nullptr);
    ASSERT_FALSE(sizes.empty());
    EXPECT_EQ(desc->extended[0].width, 4608);
    EXPECT_EQ(desc->extended[0].height, 3456);
    EXPECT_EQ(desc->readOnly, 0);
    device->FreePointer(desc);

    ASSERT_EQ(device->GetPropertyDesc(P(QKProp::BatteryLevel), &desc), QK_OK);
    EXPECT_EQ(desc->extended, nullptr);
    EXPECT_EQ(desc->readOnly, 1);
    EXPECT_EQ(desc->count, 5);
    device->FreePointer(desc);
}

TEST_F(PropertyQueryTest, RecordAnswersBeforeALoadButTheCacheDoesNot)
{
    Open("SX160");
    EXPECT_EQ(device->SetPropertyData(P(QKProp::MeteringMode), 1), QK_UNKNOWN_PROPERTY);
    EXPECT_EQ(device->ReadCameraMode(), QK_OK); // nor is the mode asked
    EXPECT_TRUE(camera->ReceivedCommands().empty());
    EXPECT_EQ(Values(QKProp::MeteringMode), (std::vector<int>{0, 1, 2}));
    int value = 0;
    LogMark mark;
    EXPECT_EQ(device->GetPropertyData(P(QKProp::MeteringMode), &value), QK_UNKNOWN_PROPERTY);
    EXPECT_EQ(mark.Count("Unknown property: 3"), 1);

    // Queries read the constraints' properties without making them known.
    List();
    camera->ClearRecords();
    for (QKProp p : {QKProp::ShootingMode, QKProp::ImageSize, QKProp::MyColors})
        EXPECT_EQ(device->GetPropertyData(P(p), &value), QK_UNKNOWN_PROPERTY);
    EXPECT_EQ(device->SetPropertyData(P(QKProp::ImageSize), 1), QK_UNKNOWN_PROPERTY);
    EXPECT_TRUE(camera->ReceivedCommands().empty());

    QKProp_Desc* desc = reinterpret_cast<QKProp_Desc*>(0x1);
    EXPECT_EQ(device->GetPropertyDesc(P(QKProp::Av) + 100, &desc), QK_UNKNOWN_PROPERTY);
    EXPECT_EQ(desc, reinterpret_cast<QKProp_Desc*>(0x1));
    EXPECT_EQ(mark.Count("GetPropertyDesc: Property not found: 108"), 1);
}

} // namespace
