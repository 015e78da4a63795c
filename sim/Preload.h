// SPDX-License-Identifier: MIT
#pragma once
// The environment a process needs to see the virtual bus: umockdev's preload
// library, and with AddressSanitizer no complaint about the library order.

#include <string>

namespace qksim {

constexpr const char* kPreloadLibrary = "libumockdev-preload.so.0";

bool HasPreload(const char* ldPreload);
// LD_PRELOAD with the preload library in front of what was there.
std::string WithPreload(const char* ldPreload);
// ASAN_OPTIONS with verify_asan_link_order=0 unless it sets that already.
std::string WithAsanLinkOrderOff(const char* asanOptions);

} // namespace qksim
