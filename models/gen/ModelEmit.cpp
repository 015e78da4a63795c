// SPDX-License-Identifier: MIT
// Writes a model record as the C++ builder autogen_init_<Model>. Values and
// focus rows become constant arrays, so a build copies them in one go.
#include <cstddef>
#include <sstream>

#include "models/gen/ModelData.h"

namespace modelgen {
namespace {

const char* propertyId(QKProp p)
{
    switch (p) {
    case QKProp::ShootingMode: return "ShootingMode";
    case QKProp::ImageSize: return "ImageSize";
    case QKProp::JpegQuality: return "JpegQuality";
    case QKProp::MeteringMode: return "MeteringMode";
    case QKProp::WBmode: return "WBmode";
    case QKProp::FlashMode: return "FlashMode";
    case QKProp::RedEyeMode: return "RedEyeMode";
    case QKProp::ISOSpeed: return "ISOSpeed";
    case QKProp::Av: return "Av";
    case QKProp::Tv: return "Tv";
    case QKProp::ExposureComp: return "ExposureComp";
    case QKProp::FlashComp: return "FlashComp";
    case QKProp::BatteryLevel: return "BatteryLevel";
    case QKProp::FocusingZone: return "FocusingZone";
    case QKProp::MyColors: return "MyColors";
    case QKProp::Contrast: return "Contrast";
    case QKProp::Sharpness: return "Sharpness";
    case QKProp::Saturation: return "Saturation";
    case QKProp::Red: return "Red";
    case QKProp::Green: return "Green";
    case QKProp::Blue: return "Blue";
    case QKProp::SkinTone: return "SkinTone";
    case QKProp::FlashPower: return "FlashPower";
    case QKProp::ManualFocusMode: return "ManualFocusMode";
    }
    return "";
}

const char* kindId(ProperyWriteKind k)
{
    switch (k) {
    case WriteKind_Plain: return "WriteKind_Plain";
    case WriteKind_SubPropery: return "WriteKind_SubPropery";
    case WriteKind_SubPropery2: return "WriteKind_SubPropery2";
    case WriteKind_FlashPower: return "WriteKind_FlashPower";
    case WriteKind_CaptureMode: return "WriteKind_CaptureMode";
    case WriteKind_ManualFocus: return "WriteKind_ManualFocus";
    }
    return "";
}

const char* constraintId(PropConstraint c)
{
    switch (c) {
    case Constraint_JpegQuality: return "Constraint_JpegQuality";
    case Constraint_Av: return "Constraint_Av";
    case Constraint_Tv: return "Constraint_Tv";
    case Constraint_CustomColor: return "Constraint_CustomColor";
    }
    return "";
}

// One constant array per zoom position, then a single loop that appends them:
// one copy of the append code instead of one per row keeps the big tables
// quick to compile.
void emitFocusTable(std::ostringstream& out, const std::vector<std::vector<int32_t>>& table)
{
    out << "    {\n";
    for (size_t z = 0; z < table.size(); ++z) {
        const std::vector<int32_t>& row = table[z];
        out << "        static const int32_t row" << z << "[" << row.size() << "] = {";
        for (size_t i = 0; i < row.size(); ++i)
            out << (i % 16 == 0 ? "\n            " : " ") << row[i] << ',';
        out << "\n        };\n";
    }
    out << "        static const int32_t* const rows[" << table.size() << "] = {";
    for (size_t z = 0; z < table.size(); ++z)
        out << (z % 8 == 0 ? "\n            " : " ") << "row" << z << ',';
    out << "\n        };\n        static const size_t sizes[" << table.size() << "] = {";
    for (size_t z = 0; z < table.size(); ++z)
        out << (z % 16 == 0 ? "\n            " : " ") << table[z].size() << ',';
    out << "\n        };\n        c.focusTable.reserve(" << table.size() << ");\n"
        << "        for (size_t z = 0; z < " << table.size() << "; ++z)\n"
        << "            c.focusTable.emplace_back(rows[z], rows[z] + sizes[z]);\n    }\n";
}

void emitProperty(std::ostringstream& out, const PropertyData& p)
{
    const ProperyConfig& cfg = p.config;
    out << "    {\n        static const ProperyValConfig values[" << cfg.values.size() << "] = {\n";
    for (const ProperyValConfig& v : cfg.values) {
        out << "            {" << v.sdkValue << ", " << v.cameraValue << ", "
            << (v.hasExtendedInfo ? "true" : "false") << ", {" << v.extendedInfo.width << ", "
            << v.extendedInfo.height << "}},\n";
    }
    out << "        };\n        ProperyConfig p;\n        p.cameraId = " << cfg.cameraId
        << ";\n        p.writeKind = " << kindId(cfg.writeKind) << ";\n";
    if (cfg.subId1 != -1)
        out << "        p.subId1 = " << cfg.subId1 << ";\n";
    if (cfg.subId2 != -1)
        out << "        p.subId2 = " << cfg.subId2 << ";\n";
    out << "        p.values.assign(values, values + " << cfg.values.size() << ");\n"
        << "        c.properties[QKProp::" << propertyId(p.property) << "] = std::move(p);\n"
        << "    }\n";
}

} // namespace

std::string EmitModel(const std::string& stem, const std::string& sourceName,
                      const ModelData& model, const std::vector<std::vector<int32_t>>& focusTable)
{
    std::ostringstream out;
    out << "// Built from " << sourceName << " by qk_modelgen: change the data file, not this.\n"
        << "#include <cstddef>\n#include <utility>\n\n#include \"models/CameraConfig.h\"\n\n"
        << "CameraConfig autogen_init_" << stem << "()\n{\n    CameraConfig c;\n"
        << "    c.name = L\"" << std::string(model.name.begin(), model.name.end()) << "\";\n";
    for (PropConstraint k : model.constraints)
        out << "    c.constraints.insert(" << constraintId(k) << ");\n";
    out << "    c.maxZoom = " << model.maxZoom << ";\n";
    if (!focusTable.empty())
        emitFocusTable(out, focusTable);
    for (const PropertyData& p : model.properties)
        emitProperty(out, p);
    out << "    return c;\n}\n";
    return out.str();
}

} // namespace modelgen
