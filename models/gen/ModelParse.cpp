// SPDX-License-Identifier: MIT
// Reads a model data file. The format is line based:
//
//   name NAME                      the string the camera is recognised by
//   maxZoom N
//   constraints NAME...            JpegQuality Av Tv CustomColor
//   property PROP CASE [KIND [SUB1 [SUB2]]]
//       SDK=RAW ...                values in the model's order; Image Size
//                                  values carry their size: SDK=RAW:WxH
//       walk from=SDK to=SDK raw=RAW step=N [wrap=M] [omit=SDK]
//                                  the catalogue's values from..to in listed
//                                  order, raw values rising by step
//   focus rows=N entries=N
//       knot ROW LENGTH FIRST LAST
//       head ROW V...              first entries of a row as known
//       tail ROW V...              last entries of a row as known
//
// Indented lines continue the block above; '#' starts a comment.
#include <cerrno>
#include <cstdlib>
#include <map>
#include <set>
#include <sstream>

#include "models/gen/ModelData.h"

namespace modelgen {
namespace {

const std::map<std::string, QKProp> propertyIds = {
    {"ShootingMode", QKProp::ShootingMode}, {"ImageSize", QKProp::ImageSize},
    {"JpegQuality", QKProp::JpegQuality},   {"MeteringMode", QKProp::MeteringMode},
    {"WBmode", QKProp::WBmode},             {"FlashMode", QKProp::FlashMode},
    {"RedEyeMode", QKProp::RedEyeMode},     {"ISOSpeed", QKProp::ISOSpeed},
    {"Av", QKProp::Av},                     {"Tv", QKProp::Tv},
    {"ExposureComp", QKProp::ExposureComp}, {"FlashComp", QKProp::FlashComp},
    {"BatteryLevel", QKProp::BatteryLevel}, {"FocusingZone", QKProp::FocusingZone},
    {"MyColors", QKProp::MyColors},         {"Contrast", QKProp::Contrast},
    {"Sharpness", QKProp::Sharpness},       {"Saturation", QKProp::Saturation},
    {"Red", QKProp::Red},                   {"Green", QKProp::Green},
    {"Blue", QKProp::Blue},                 {"SkinTone", QKProp::SkinTone},
    {"FlashPower", QKProp::FlashPower},     {"ManualFocusMode", QKProp::ManualFocusMode},
};

struct KindInfo {
    ProperyWriteKind kind;
    size_t subIds;
};

const std::map<std::string, KindInfo> kindIds = {
    {"Plain", {WriteKind_Plain, 0}},
    {"SubPropery", {WriteKind_SubPropery, 1}},
    {"SubPropery2", {WriteKind_SubPropery2, 2}},
    {"FlashPower", {WriteKind_FlashPower, 2}},
    {"CaptureMode", {WriteKind_CaptureMode, 0}},
    {"ManualFocus", {WriteKind_ManualFocus, 0}},
};

const std::map<std::string, PropConstraint> constraintIds = {
    {"JpegQuality", Constraint_JpegQuality},
    {"Av", Constraint_Av},
    {"Tv", Constraint_Tv},
    {"CustomColor", Constraint_CustomColor},
};

bool toInt(const std::string& s, long* out)
{
    if (s.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return false;
    *out = v;
    return true;
}

bool toInt32(const std::string& s, int32_t* out)
{
    long v = 0;
    if (!toInt(s, &v))
        return false;
    *out = static_cast<int32_t>(v);
    return true;
}

// Parses "key=value" pairs into a map; false on a token without '='.
bool keyValues(const std::vector<std::string>& tokens, size_t from,
               std::map<std::string, std::string>* out)
{
    for (size_t i = from; i < tokens.size(); ++i) {
        size_t eq = tokens[i].find('=');
        if (eq == std::string::npos || eq == 0)
            return false;
        (*out)[tokens[i].substr(0, eq)] = tokens[i].substr(eq + 1);
    }
    return true;
}

class Parser {
public:
    Parser(ModelData* model, std::string* error) : model(model), error(error) {}

    bool line(int number, const std::vector<std::string>& tokens, bool continuation)
    {
        lineNo = number;
        if (!continuation) {
            block = Block::None;
            return topLevel(tokens);
        }
        switch (block) {
        case Block::Property:
            return propertyLine(tokens);
        case Block::Focus:
            return focusLine(tokens);
        case Block::None:
            break;
        }
        return fail("indented line outside a property or focus block");
    }

    bool finish();

private:
    enum class Block { None, Property, Focus };

    bool fail(const std::string& what)
    {
        *error = "line " + std::to_string(lineNo) + ": " + what;
        return false;
    }

    bool topLevel(const std::vector<std::string>& t);
    bool propertyHeader(const std::vector<std::string>& t);
    bool propertyLine(const std::vector<std::string>& t);
    bool valueToken(const std::string& token);
    bool walk(const std::vector<std::string>& t);
    bool focusHeader(const std::vector<std::string>& t);
    bool focusLine(const std::vector<std::string>& t);
    bool checkProperty(const PropertyData& p, std::string* why) const;

    ModelData* model;
    std::string* error;
    int lineNo = 0;
    Block block = Block::None;
};

bool Parser::topLevel(const std::vector<std::string>& t)
{
    const std::string& key = t[0];
    if (key == "name") {
        if (t.size() != 2 || !model->name.empty())
            return fail("name takes one word, once");
        model->name.assign(t[1].begin(), t[1].end());
        return true;
    }
    if (key == "maxZoom") {
        if (t.size() != 2 || !toInt32(t[1], &model->maxZoom) || model->maxZoom < 0)
            return fail("maxZoom takes one non-negative number");
        return true;
    }
    if (key == "constraints") {
        for (size_t i = 1; i < t.size(); ++i) {
            auto it = constraintIds.find(t[i]);
            if (it == constraintIds.end())
                return fail("unknown constraint " + t[i]);
            model->constraints.push_back(it->second);
        }
        return true;
    }
    if (key == "property")
        return propertyHeader(t);
    if (key == "focus")
        return focusHeader(t);
    return fail("unknown keyword " + key);
}

bool Parser::propertyHeader(const std::vector<std::string>& t)
{
    if (t.size() < 3)
        return fail("property needs a name and a case number");
    auto prop = propertyIds.find(t[1]);
    if (prop == propertyIds.end())
        return fail("unknown property " + t[1]);
    for (const PropertyData& p : model->properties) {
        if (p.property == prop->second)
            return fail("property " + t[1] + " given twice");
    }
    PropertyData p;
    p.property = prop->second;
    p.line = lineNo;
    if (!toInt32(t[2], &p.config.cameraId))
        return fail("bad case number " + t[2]);
    KindInfo kind{WriteKind_Plain, 0};
    if (t.size() > 3) {
        auto k = kindIds.find(t[3]);
        if (k == kindIds.end())
            return fail("unknown write kind " + t[3]);
        kind = k->second;
    }
    size_t given = t.size() > 4 ? t.size() - 4 : 0;
    if (given != kind.subIds)
        return fail(t.size() > 3 ? t[3] + " takes " + std::to_string(kind.subIds) + " sub ids"
                                 : "Plain takes no sub ids");
    p.config.writeKind = kind.kind;
    if (kind.subIds > 0 && !toInt32(t[4], &p.config.subId1))
        return fail("bad sub id " + t[4]);
    if (kind.subIds > 1 && !toInt32(t[5], &p.config.subId2))
        return fail("bad sub id " + t[5]);
    model->properties.push_back(p);
    block = Block::Property;
    return true;
}

bool Parser::propertyLine(const std::vector<std::string>& t)
{
    if (t[0] == "walk")
        return walk(t);
    for (const std::string& token : t) {
        if (!valueToken(token))
            return false;
    }
    return true;
}

bool Parser::valueToken(const std::string& token)
{
    size_t eq = token.find('=');
    if (eq == std::string::npos)
        return fail("expected SDK=RAW, got " + token);
    std::string raw = token.substr(eq + 1);
    std::string size;
    size_t colon = raw.find(':');
    if (colon != std::string::npos) {
        size = raw.substr(colon + 1);
        raw.resize(colon);
    }
    ProperyValConfig v;
    if (!toInt32(token.substr(0, eq), &v.sdkValue) || !toInt32(raw, &v.cameraValue))
        return fail("bad value " + token);
    if (!size.empty()) {
        size_t x = size.find('x');
        if (x == std::string::npos || !toInt32(size.substr(0, x), &v.extendedInfo.width) ||
            !toInt32(size.substr(x + 1), &v.extendedInfo.height))
            return fail("bad size in " + token);
        v.hasExtendedInfo = true;
    }
    model->properties.back().config.values.push_back(v);
    return true;
}

bool Parser::walk(const std::vector<std::string>& t)
{
    std::map<std::string, std::string> kv;
    if (!keyValues(t, 1, &kv))
        return fail("walk takes key=value pairs");
    long from = 0, to = 0, raw = 0, step = 0, wrap = 0, omit = 0;
    bool hasOmit = kv.count("omit") != 0;
    if (!toInt(kv["from"], &from) || !toInt(kv["to"], &to) || !toInt(kv["raw"], &raw) ||
        !toInt(kv["step"], &step))
        return fail("walk needs from, to, raw and step");
    if (kv.count("wrap") && (!toInt(kv["wrap"], &wrap) || wrap <= 0))
        return fail("bad wrap");
    if (hasOmit && !toInt(kv["omit"], &omit))
        return fail("bad omit");
    for (const auto& entry : kv) {
        static const std::set<std::string> known = {"from", "to", "raw", "step", "wrap", "omit"};
        if (!known.count(entry.first))
            return fail("walk has no key " + entry.first);
    }

    PropertyData& p = model->properties.back();
    bool inRange = false, reachedEnd = false, omitted = !hasOmit;
    long next = raw;
    for (size_t i = 0; i < g_PropValueCatalogueSize && !reachedEnd; ++i) {
        const QKPropValueEntry& e = g_PropValueCatalogue[i];
        if (e.property != p.property)
            continue;
        if (e.value == from)
            inRange = true;
        if (!inRange)
            continue;
        reachedEnd = e.value == to;
        if (hasOmit && e.value == omit) {
            omitted = true;
            continue;
        }
        ProperyValConfig v;
        v.sdkValue = e.value;
        v.cameraValue = static_cast<int32_t>(wrap > 0 ? ((next % wrap) + wrap) % wrap : next);
        p.config.values.push_back(v);
        next += step;
    }
    if (!inRange || !reachedEnd)
        return fail("walk: from/to not found in this order in the catalogue");
    if (!omitted)
        return fail("walk: omitted value not within the walk");
    return true;
}

bool Parser::focusHeader(const std::vector<std::string>& t)
{
    if (model->hasFocus)
        return fail("focus given twice");
    std::map<std::string, std::string> kv;
    long rows = 0, entries = 0;
    if (!keyValues(t, 1, &kv) || kv.size() != 2 || !toInt(kv["rows"], &rows) ||
        !toInt(kv["entries"], &entries) || rows <= 0 || entries <= 0)
        return fail("focus takes rows=N entries=N");
    model->hasFocus = true;
    model->focus.rows = static_cast<int>(rows);
    model->focus.entries = entries;
    block = Block::Focus;
    return true;
}

bool Parser::focusLine(const std::vector<std::string>& t)
{
    std::vector<int32_t> numbers;
    for (size_t i = 1; i < t.size(); ++i) {
        int32_t v = 0;
        if (!toInt32(t[i], &v))
            return fail("bad number " + t[i]);
        numbers.push_back(v);
    }
    FocusOutline& f = model->focus;
    if (t[0] == "knot") {
        if (numbers.size() != 4)
            return fail("knot takes ROW LENGTH FIRST LAST");
        if (!f.knots.empty() && numbers[0] <= f.knots.back().row)
            return fail("knots must be in ascending row order");
        f.knots.push_back({numbers[0], numbers[1], numbers[2], numbers[3]});
        return true;
    }
    if (t[0] == "head" || t[0] == "tail") {
        if (numbers.size() < 2)
            return fail(t[0] + " takes a row and entries");
        FocusPin* pin = nullptr;
        for (FocusPin& p : f.pins) {
            if (p.row == numbers[0])
                pin = &p;
        }
        if (!pin) {
            f.pins.push_back(FocusPin{numbers[0], {}, {}});
            pin = &f.pins.back();
        }
        std::vector<int32_t>& dest = t[0] == "head" ? pin->head : pin->tail;
        if (!dest.empty())
            return fail(t[0] + " of row " + std::to_string(pin->row) + " given twice");
        dest.assign(numbers.begin() + 1, numbers.end());
        return true;
    }
    return fail("unknown focus line " + t[0]);
}

bool Parser::checkProperty(const PropertyData& p, std::string* why) const
{
    const ProperyConfig& c = p.config;
    if (c.values.empty()) {
        *why = "no values";
        return false;
    }
    std::set<int32_t> sdk, raw;
    for (const ProperyValConfig& v : c.values) {
        const char* name = nullptr;
        if (GetPropertyValName(static_cast<int>(p.property), v.sdkValue, &name) != 0) {
            *why = "value " + std::to_string(v.sdkValue) + " is not in the catalogue";
            return false;
        }
        if (!sdk.insert(v.sdkValue).second) {
            *why = "value " + std::to_string(v.sdkValue) + " given twice";
            return false;
        }
        if (!raw.insert(v.cameraValue).second) {
            *why = "raw value " + std::to_string(v.cameraValue) + " given twice";
            return false;
        }
        if (v.hasExtendedInfo != (p.property == QKProp::ImageSize)) {
            *why = "every Image Size value, and nothing else, carries a size";
            return false;
        }
        bool listOnly = p.property == QKProp::FlashPower || p.property == QKProp::BatteryLevel ||
                        p.property == QKProp::ManualFocusMode;
        if (listOnly && v.sdkValue != v.cameraValue) {
            *why = "this property's table only lists values: raw must equal value";
            return false;
        }
    }
    return true;
}

bool Parser::finish()
{
    if (model->name.empty())
        return fail("no name");
    if (model->maxZoom < 0)
        return fail("no maxZoom");
    for (const PropertyData& p : model->properties) {
        std::string why;
        if (!checkProperty(p, &why)) {
            lineNo = p.line;
            return fail(why);
        }
    }
    if (model->hasFocus && model->focus.rows != model->maxZoom + 1)
        return fail("focus table needs maxZoom + 1 rows");
    return true;
}

} // namespace

bool ParseModel(const std::string& text, ModelData* model, std::string* error)
{
    Parser parser(model, error);
    std::istringstream in(text);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        size_t hash = line.find('#');
        if (hash != std::string::npos)
            line.resize(hash);
        std::istringstream words(line);
        std::vector<std::string> tokens;
        for (std::string w; words >> w;)
            tokens.push_back(w);
        if (tokens.empty())
            continue;
        bool continuation = line[0] == ' ' || line[0] == '\t';
        if (!parser.line(number, tokens, continuation))
            return false;
    }
    return parser.finish();
}

} // namespace modelgen
