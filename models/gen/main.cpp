// SPDX-License-Identifier: MIT
// qk_modelgen DATA OUT STEM: turns one model data file into <STEM>.gen.
#include <cstdio>
#include <fstream>
#include <sstream>

#include "models/gen/ModelData.h"

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: qk_modelgen DATA OUT STEM\n");
        return 2;
    }
    const std::string dataPath = argv[1], outPath = argv[2], stem = argv[3];
    std::ifstream in(dataPath);
    if (!in) {
        std::fprintf(stderr, "%s: cannot read\n", dataPath.c_str());
        return 1;
    }
    std::stringstream text;
    text << in.rdbuf();

    modelgen::ModelData model;
    std::string error;
    std::vector<std::vector<int32_t>> focusTable;
    if (!modelgen::ParseModel(text.str(), &model, &error) ||
        (model.hasFocus && !modelgen::SynthesiseFocusTable(model.focus, &focusTable, &error))) {
        std::fprintf(stderr, "%s: %s\n", dataPath.c_str(), error.c_str());
        return 1;
    }

    std::string name = dataPath.substr(dataPath.find_last_of('/') + 1);
    // Through a temporary, so a failed run never leaves a half source that
    // the build would take as up to date.
    const std::string tmpPath = outPath + ".tmp";
    std::ofstream out(tmpPath, std::ios::trunc);
    out << modelgen::EmitModel(stem, name, model, focusTable);
    out.close();
    if (!out || std::rename(tmpPath.c_str(), outPath.c_str()) != 0) {
        std::fprintf(stderr, "%s: cannot write\n", outPath.c_str());
        std::remove(tmpPath.c_str());
        return 1;
    }
    return 0;
}
