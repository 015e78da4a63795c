// SPDX-License-Identifier: MIT
#include "sim/Preload.h"

#include "sim/VirtualBus.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace qksim {

namespace {

// Set across the re-execution, so that a preload that fails to load ends in
// an error instead of a loop.
constexpr const char* kRetryMarker = "QKSIM_PRELOAD_TRIED";

} // namespace

bool HasPreload(const char* ldPreload)
{
    return ldPreload && std::strstr(ldPreload, "libumockdev-preload.so");
}

std::string WithPreload(const char* ldPreload)
{
    std::string value = kPreloadLibrary;
    if (ldPreload && *ldPreload)
        value += std::string(":") + ldPreload;
    return value;
}

std::string WithAsanLinkOrderOff(const char* asanOptions)
{
    std::string value = asanOptions ? asanOptions : "";
    if (value.find("verify_asan_link_order") != std::string::npos)
        return value;
    if (!value.empty())
        value += ":";
    return value + "verify_asan_link_order=0";
}

bool VirtualBus::EnsurePreload(int argc, char** argv)
{
    // umockdev_in_mock_environment() would cache its answer before any
    // testbed exists, so the environment tells instead.
    if (HasPreload(std::getenv("LD_PRELOAD"))) {
        unsetenv(kRetryMarker);
        // The bus is made now, before anything can call libusb_init: a libusb
        // started without a testbed looks at the real system for good, and
        // would not even see cameras plugged in later.
        Instance();
        return true;
    }
    if (std::getenv(kRetryMarker)) {
        std::fprintf(stderr, "qkcam virtual bus: %s did not load\n", kPreloadLibrary);
        return false;
    }
    setenv("LD_PRELOAD", WithPreload(std::getenv("LD_PRELOAD")).c_str(), 1);
    setenv("ASAN_OPTIONS", WithAsanLinkOrderOff(std::getenv("ASAN_OPTIONS")).c_str(), 1);
    setenv(kRetryMarker, "1", 1);
    std::vector<char*> args(argv, argv + argc);
    args.push_back(nullptr);
    execv("/proc/self/exe", args.data());
    std::perror("qkcam virtual bus: re-executing with the preload library");
    return false;
}

} // namespace qksim
