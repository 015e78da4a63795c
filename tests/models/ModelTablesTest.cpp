// The twenty records against an independent copy of their key figures: a typo
// in a data file shows up here.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "models/CameraDB.h"

namespace {

struct ModelExpect {
    const char* model;
    const wchar_t* name;
    int maxZoom;
    const char* constraints;  // PropConstraint numbers
    size_t focusRows;
    size_t properties;
    size_t values;
};

const ModelExpect modelExpect[] = {
    {"A1400", L"A1400", 63, "0", 0, 11, 58},
    {"A2200", L"A2200", 6, "0 3", 0, 16, 100},
    {"A4000", L"A4000", 126, "0", 0, 12, 72},
    {"A495", L"A495", 6, "0", 0, 12, 72},
    {"A800", L"A800", 6, "0", 0, 12, 62},
    {"A810", L"A810", 63, "0", 0, 12, 74},
    {"G15", L"G15", 120, "0 1 2 3", 0, 23, 231},
    {"IXUS145", L"IXUS145", 100, "0", 0, 13, 82},
    {"IXUS160", L"IXUS160", 100, "0", 0, 13, 82},
    {"IXUS170", L"IXUS170", 100, "0", 0, 13, 81},
    {"SX130", L"SX130", 125, "0 1 2", 0, 15, 145},
    {"SX150", L"SX150", 125, "0 1 2 3", 126, 24, 197},
    {"SX160", L"SX160", 125, "0 1 2 3", 126, 24, 192},
    {"SX170", L"SX170", 126, "0 1 2 3", 127, 24, 191},
    {"SX40", L"SX40HS", 200, "0 1 2", 0, 15, 152},
    {"SX400", L"SX400IS", 126, "0", 0, 12, 67},
    {"SX410", L"SX410IS", 121, "0 3", 0, 20, 123},
    {"SX500", L"SX500", 125, "0 1 2 3", 0, 23, 188},
    {"SX510", L"SX510", 126, "0 1 2 3", 0, 23, 191},
    {"SX520", L"SX520", 194, "0 1 2 3", 0, 23, 189},
};

// Case numbers by property number 0..24 without 12; '.' where the model
// lacks the property.
const char* const caseRows[] = {
    "49 221 167 157 271 143 219 149 . . . . -1 6 . . . . . . . . -1 .",
    "49 222 57 157 272 143 220 149 . . . 127 -1 6 188 59 229 55 . . . . -1 .",
    "49 222 57 157 272 143 220 149 . . . 127 -1 6 . . . . . . . . -1 .",
    "49 220 57 155 270 143 218 149 . . 107 . -1 6 . . . . . . . . -1 .",
    "49 222 57 157 272 143 220 149 . . 107 . -1 6 . . . . . . . . -1 .",
    "49 222 57 157 272 143 220 149 . . . 127 -1 6 . . . . . . . . -1 .",
    "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 .",
    "49 221 57 157 271 143 219 149 . . 107 127 -1 6 . . . . . . . . -1 .",
    "49 221 57 157 271 143 219 149 . . 107 127 -1 6 . . . . . . . . -1 .",
    "49 221 57 157 271 143 219 149 . . 107 127 -1 6 . . . . . . . . -1 .",
    "49 222 57 157 272 143 220 149 26 268 211 127 -1 6 . . . . . . . . -1 .",
    "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 -1",
    "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 -1",
    "49 221 57 157 271 143 219 149 26 267 107 127 -1 6 187 59 228 55 178 177 176 179 -1 -1",
    "49 222 57 157 272 121 220 149 26 268 107 127 -1 6 . . . . . . . . -1 .",
    "49 221 57 157 271 143 219 149 . . 107 . -1 6 . . . . . . . . -1 .",
    "49 221 57 157 271 143 216 149 . . 107 127 . 6 187 59 228 55 178 177 176 179 -1 .",
    "49 222 57 157 272 143 220 149 26 268 107 127 -1 6 188 59 229 55 179 178 177 180 -1 .",
    "49 221 57 157 271 143 219 149 26 267 107 127 -1 6 187 59 228 55 178 177 176 179 -1 .",
    "50 224 59 160 276 146 219 152 26 271 213 130 -1 6 190 61 231 57 181 180 179 182 -1 .",
};

// Red Eye Mode and Exposure Compensation: "kind subId1 [subId2]", or "." where
// absent; then Flash Power's two sub ids.
struct KindExpect {
    const char* redEye;
    const char* exposureComp;
    int flashAdjust;
    int flashOutput;
};

const KindExpect kindRows[] = {
    {"1 216", ".", 121, 141},     {"1 217", ".", 121, 141},     {"1 217", ".", 121, 141},
    {"1 215", "1 209", 121, 141}, {"1 217", "1 211", 121, 141}, {"2 217 5", ".", 121, 141},
    {"1 217", "1 211", 121, 141}, {"1 216", "1 210", 121, 141}, {"1 216", "1 210", 121, 141},
    {"1 216", "1 210", 121, 141}, {"1 217", "0", 121, 141},     {"1 217", "1 211", 121, 141},
    {"1 217", "1 211", 121, 141}, {"1 216", "1 210", 121, 141}, {"1 217", "1 211", 121, 141},
    {"1 216", "1 210", 121, 141}, {"0", "1 210", 121, 141},     {"1 217", "1 211", 121, 141},
    {"1 216", "1 210", 121, 141}, {"1 222", "1 110", 124, 144},
};

const int propNumbers[] = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11,
                           13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};

std::vector<std::string> words(const char* s)
{
    std::istringstream in(s);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

// "kind subId1 subId2" as the record holds it.
std::string kindOf(const ProperyConfig& p)
{
    std::string s = std::to_string(p.writeKind);
    if (p.writeKind == WriteKind_SubPropery || p.writeKind == WriteKind_SubPropery2)
        s += " " + std::to_string(p.subId1);
    if (p.writeKind == WriteKind_SubPropery2)
        s += " " + std::to_string(p.subId2);
    return s;
}

TEST(ModelTables, TableOrderAndCounts)
{
    ASSERT_EQ(cameraDB.size(), std::size(modelExpect));
    for (size_t i = 0; i < cameraDB.size(); ++i) {
        const ModelExpect& e = modelExpect[i];
        const CameraConfig& c = cameraDB[i];
        SCOPED_TRACE(e.model);
        EXPECT_EQ(c.name, e.name);
        EXPECT_EQ(c.maxZoom, e.maxZoom);
        std::set<PropConstraint> constraints;
        for (const std::string& n : words(e.constraints))
            constraints.insert(static_cast<PropConstraint>(std::stoi(n)));
        EXPECT_EQ(c.constraints, constraints);
        EXPECT_EQ(c.focusTable.size(), e.focusRows);
        EXPECT_EQ(c.properties.size(), e.properties);
        size_t values = 0;
        for (const auto& p : c.properties)
            values += p.second.values.size();
        EXPECT_EQ(values, e.values);
    }
}

TEST(ModelTables, CaseNumbers)
{
    ASSERT_EQ(cameraDB.size(), std::size(caseRows));
    for (size_t i = 0; i < cameraDB.size(); ++i) {
        SCOPED_TRACE(modelExpect[i].model);
        std::vector<std::string> cells = words(caseRows[i]);
        ASSERT_EQ(cells.size(), std::size(propNumbers));
        for (size_t k = 0; k < cells.size(); ++k) {
            auto it = cameraDB[i].properties.find(static_cast<QKProp>(propNumbers[k]));
            if (cells[k] == ".") {
                EXPECT_EQ(it, cameraDB[i].properties.end()) << "property " << propNumbers[k];
            } else {
                ASSERT_NE(it, cameraDB[i].properties.end()) << "property " << propNumbers[k];
                EXPECT_EQ(it->second.cameraId, std::stoi(cells[k])) << "property " << propNumbers[k];
            }
        }
    }
}

TEST(ModelTables, WriteKindsAndSubIds)
{
    for (size_t i = 0; i < cameraDB.size(); ++i) {
        SCOPED_TRACE(modelExpect[i].model);
        const auto& props = cameraDB[i].properties;
        for (const auto& entry : props) {
            const ProperyConfig& p = entry.second;
            switch (entry.first) {
            case QKProp::ShootingMode:
                EXPECT_EQ(p.writeKind, WriteKind_CaptureMode);
                break;
            case QKProp::FlashPower:
                EXPECT_EQ(p.writeKind, WriteKind_FlashPower);
                EXPECT_EQ(p.subId1, kindRows[i].flashAdjust);
                EXPECT_EQ(p.subId2, kindRows[i].flashOutput);
                break;
            case QKProp::ManualFocusMode:
                EXPECT_EQ(p.writeKind, WriteKind_ManualFocus);
                break;
            case QKProp::RedEyeMode:
                EXPECT_EQ(kindOf(p), kindRows[i].redEye);
                break;
            case QKProp::ExposureComp:
                EXPECT_EQ(kindOf(p), kindRows[i].exposureComp);
                break;
            default:
                EXPECT_EQ(p.writeKind, WriteKind_Plain) << static_cast<int>(entry.first);
                break;
            }
            // Ids that a kind doesn't use stay at -1, so nobody writes case 0
            // by mistake.
            bool usesSub1 = p.writeKind == WriteKind_SubPropery || p.writeKind == WriteKind_SubPropery2 ||
                            p.writeKind == WriteKind_FlashPower;
            bool usesSub2 = p.writeKind == WriteKind_SubPropery2 || p.writeKind == WriteKind_FlashPower;
            if (!usesSub1) {
                EXPECT_EQ(p.subId1, -1) << static_cast<int>(entry.first);
            }
            if (!usesSub2) {
                EXPECT_EQ(p.subId2, -1) << static_cast<int>(entry.first);
            }
        }
        EXPECT_EQ(props.count(QKProp::ExposureComp) != 0, std::string(kindRows[i].exposureComp) != ".");
    }
}

TEST(ModelTables, PropertyPresence)
{
    for (const CameraConfig& c : cameraDB) {
        SCOPED_TRACE(std::string(c.name.begin(), c.name.end()));
        EXPECT_EQ(c.properties.count(static_cast<QKProp>(12)), 0u);
        bool manualFocus = c.name == L"SX150" || c.name == L"SX160" || c.name == L"SX170";
        EXPECT_EQ(c.properties.count(QKProp::ManualFocusMode) != 0, manualFocus);
        EXPECT_EQ(c.properties.count(QKProp::BatteryLevel) != 0, c.name != L"SX410IS");
    }
}

TEST(FindCameraConfig, FirstContainedNameWins)
{
    CameraConfig found;
    ASSERT_TRUE(findCameraConfig(&found, L"Digital Camera SX400IS"));
    EXPECT_EQ(found.name, L"SX400IS");
    EXPECT_EQ(found.maxZoom, 126);
    ASSERT_TRUE(findCameraConfig(&found, L"Digital Camera SX40HS"));
    EXPECT_EQ(found.name, L"SX40HS");
    ASSERT_TRUE(findCameraConfig(&found, L"SX160 IS"));
    EXPECT_EQ(found.name, L"SX160");
    ASSERT_TRUE(findCameraConfig(&found, L"A495"));
    EXPECT_EQ(found.name, L"A495");
}

TEST(FindCameraConfig, MissLeavesTheOutputAlone)
{
    CameraConfig found;
    found.name = L"before";
    found.maxZoom = 7;
    EXPECT_FALSE(findCameraConfig(&found, L"Digital Camera SX40"));    // no "HS"
    EXPECT_FALSE(findCameraConfig(&found, L"Digital Camera sx160"));   // case matters
    EXPECT_FALSE(findCameraConfig(&found, L""));
    EXPECT_EQ(found.name, L"before");
    EXPECT_EQ(found.maxZoom, 7);
    EXPECT_TRUE(found.properties.empty());
}

// Recognition takes the first contained name, so no name may occur in the
// product string of a model listed after it.
TEST(FindCameraConfig, EveryModelIsRecognisedAsItself)
{
    for (const CameraConfig& c : cameraDB) {
        CameraConfig found;
        for (const std::wstring& product : {c.name, L"Digital Camera " + c.name, c.name + L" IS"}) {
            ASSERT_TRUE(findCameraConfig(&found, product));
            EXPECT_EQ(found.name, c.name);
        }
    }
}

TEST(FindCameraConfig, CopiesAreIndependent)
{
    CameraConfig a, b;
    ASSERT_TRUE(findCameraConfig(&a, L"SX170"));
    ASSERT_TRUE(findCameraConfig(&b, L"SX170"));
    a.properties.erase(QKProp::ManualFocusMode);
    a.focusTable[0][0] = -1;
    EXPECT_EQ(b.properties.count(QKProp::ManualFocusMode), 1u);
    EXPECT_EQ(cameraDB[13].properties.count(QKProp::ManualFocusMode), 1u);
    EXPECT_EQ(b.focusTable[0][0], cameraDB[13].focusTable[0][0]);
    EXPECT_GT(cameraDB[13].focusTable[0][0], 0);
}

} // namespace
