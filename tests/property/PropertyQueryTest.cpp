// Queries from the cache and the record: lists and descriptions under the
// constraints, extended size data, read-only flags, memory given back.

#include "tests/property/PropertyFixture.h"

namespace {

using namespace qktest;

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

    QKProp_Desc* other = nullptr;
    ASSERT_EQ(device->GetPropertyDesc(P(QKProp::MeteringMode), &other), QK_OK);
    EXPECT_EQ(other->extended, nullptr);
    device->FreePointer(other);

    QKProp_Desc* battery = nullptr;
    ASSERT_EQ(device->GetPropertyDesc(P(QKProp::BatteryLevel), &battery), QK_OK);
    EXPECT_EQ(battery->readOnly, 1);
    EXPECT_EQ(battery->count, 5);
    device->FreePointer(battery);
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
