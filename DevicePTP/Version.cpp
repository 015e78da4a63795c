// SPDX-License-Identifier: MIT
#include "DevicePTP/Version.h"

const char* qkcamVersion() { return QK_VERSION; }
