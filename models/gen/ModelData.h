// SPDX-License-Identifier: MIT
#pragma once
// A model record as read from its data file, before it becomes C++.
#include <string>
#include <vector>

#include "models/CameraConfig.h"

namespace modelgen {

struct PropertyData {
    QKProp property = QKProp::ShootingMode;
    ProperyConfig config;
    int line = 0;  // where the property starts in the data file
};

// One row given in full at its ends: the figures we know of that row.
struct FocusPin {
    int row = 0;
    std::vector<int32_t> head;  // first entries
    std::vector<int32_t> tail;  // last entries
};

// Control rows of a focus table; rows between two knots take their length,
// first and last entry from them.
struct FocusKnot {
    int row = 0;
    int length = 0;
    int32_t first = 0;
    int32_t last = 0;
};

struct FocusOutline {
    int rows = 0;
    long entries = 0;
    std::vector<FocusKnot> knots;
    std::vector<FocusPin> pins;
};

struct ModelData {
    std::wstring name;
    int32_t maxZoom = -1;
    std::vector<PropConstraint> constraints;
    std::vector<PropertyData> properties;  // in the data file's order
    bool hasFocus = false;
    FocusOutline focus;
};

// Reads a data file's text. On failure returns false and says why in *error,
// with the line number.
bool ParseModel(const std::string& text, ModelData* model, std::string* error);

// Builds the rows of a focus table. On failure returns false with *error.
bool SynthesiseFocusTable(const FocusOutline& outline, std::vector<std::vector<int32_t>>* table,
                          std::string* error);

// The C++ source that defines autogen_init_<stem>.
std::string EmitModel(const std::string& stem, const std::string& sourceName,
                      const ModelData& model, const std::vector<std::vector<int32_t>>& focusTable);

} // namespace modelgen
