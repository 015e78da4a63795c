// SPDX-License-Identifier: MIT
#include "models/CameraDB.h"

// Defined by the generated <Model>.gen sources.
CameraConfig autogen_init_A1400();
CameraConfig autogen_init_A2200();
CameraConfig autogen_init_A4000();
CameraConfig autogen_init_A495();
CameraConfig autogen_init_A800();
CameraConfig autogen_init_A810();
CameraConfig autogen_init_G15();
CameraConfig autogen_init_IXUS145();
CameraConfig autogen_init_IXUS160();
CameraConfig autogen_init_IXUS170();
CameraConfig autogen_init_SX130();
CameraConfig autogen_init_SX150();
CameraConfig autogen_init_SX160();
CameraConfig autogen_init_SX170();
CameraConfig autogen_init_SX40();
CameraConfig autogen_init_SX400();
CameraConfig autogen_init_SX410();
CameraConfig autogen_init_SX500();
CameraConfig autogen_init_SX510();
CameraConfig autogen_init_SX520();

// The order is the search order: a name must not occur in the product string
// of a model listed after it (SX40HS before SX400IS works only because
// "SX40HS" is not inside "SX400IS").
std::vector<CameraConfig> initCameraDB()
{
    std::vector<CameraConfig> db;
    db.reserve(20);
    db.push_back(autogen_init_A1400());
    db.push_back(autogen_init_A2200());
    db.push_back(autogen_init_A4000());
    db.push_back(autogen_init_A495());
    db.push_back(autogen_init_A800());
    db.push_back(autogen_init_A810());
    db.push_back(autogen_init_G15());
    db.push_back(autogen_init_IXUS145());
    db.push_back(autogen_init_IXUS160());
    db.push_back(autogen_init_IXUS170());
    db.push_back(autogen_init_SX130());
    db.push_back(autogen_init_SX150());
    db.push_back(autogen_init_SX160());
    db.push_back(autogen_init_SX170());
    db.push_back(autogen_init_SX40());
    db.push_back(autogen_init_SX400());
    db.push_back(autogen_init_SX410());
    db.push_back(autogen_init_SX500());
    db.push_back(autogen_init_SX510());
    db.push_back(autogen_init_SX520());
    return db;
}

std::vector<CameraConfig> cameraDB = initCameraDB();

bool findCameraConfig(CameraConfig* out, std::wstring deviceName)
{
    for (const CameraConfig& record : cameraDB) {
        if (deviceName.find(record.name) != std::wstring::npos) {
            *out = record;
            return true;
        }
    }
    return false;
}
