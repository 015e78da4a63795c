// SPDX-License-Identifier: MIT
#pragma once
// Records looked up by name, and a value table as text, for the tests of the
// knowledge base and of the generator behind it.

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "models/CameraDB.h"

namespace qktest {

inline std::string ModelName(const CameraConfig& c)
{
    return std::string(c.name.begin(), c.name.end());
}

inline const CameraConfig& ModelNamed(const std::wstring& name)
{
    for (const CameraConfig& c : cameraDB) {
        if (c.name == name)
            return c;
    }
    static const CameraConfig none;
    ADD_FAILURE() << "no record " << std::string(name.begin(), name.end());
    return none;
}

// A value table as "sdk=raw sdk=raw ...".
inline std::string ValuePairs(const ProperyConfig& p)
{
    std::ostringstream out;
    for (const ProperyValConfig& v : p.values)
        out << (out.tellp() > 0 ? " " : "") << v.sdkValue << '=' << v.cameraValue;
    return out.str();
}

} // namespace qktest
