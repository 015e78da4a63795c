// SPDX-License-Identifier: MIT
// qkcam-virtual: holds virtual cameras and runs a program that sees them on
// its USB bus, through the unmodified libusb-1.0.

// Live preview: the frame size the cameras report.
#include "sim/CameraCard.h"
#include "sim/CameraPreview.h"
#include "sim/CameraShutter.h"
#include "sim/CommandTrace.h"
#include "sim/HotplugSchedule.h"
#include "sim/Preload.h"
#include "sim/VirtualBus.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

const char* const kUsage =
    "Usage: qkcam-virtual [OPTION]... -- PROGRAM [ARGUMENT]...\n"
    "Runs PROGRAM with virtual cameras on its USB bus, as libusb-1.0 sees it.\n"
    "\n"
    "  --camera MODEL:SERIAL[:PRODUCT]  add a camera (repeatable); the product\n"
    "                                   string defaults to \"QK Virtual Camera MODEL\"\n"
    "  --other VID:PID:PRODUCT          add a USB device that is no camera (ids in hex)\n"
    "  --preview WIDTHxHEIGHT[:LINES]   live preview frame size of the --camera cameras:\n"
    "                                   720x240 (default), 360x240, 320x240, 704x480,\n"
    "                                   or 720x180:240 (height 180, LINES lines)\n"
    "  --plug-after MS MODEL:SERIAL[:PRODUCT]\n"
    "                                   plug a camera in MS milliseconds after PROGRAM\n"
    "                                   started (repeatable)\n"
    "  --unplug-after MS SERIAL         pull the camera with that serial out MS\n"
    "                                   milliseconds after PROGRAM started (repeatable)\n"
    "  --trace FILE                     write one JSON line per command container a\n"
    "                                   camera receives to FILE: {\"serial\", \"operation\",\n"
    "                                   \"subCommand\" (vendor operations), \"ns\" (arrival,\n"
    "                                   monotonic clock)}; PROGRAM finds FILE in QKCAM_TRACE\n"
    "  --picture WIDTHxHEIGHT[:BYTES]   size of the pictures the cameras take (320x240),\n"
    "                                   padded to BYTES with comment segments\n"
    "  --card-dir DIR                   when PROGRAM has ended, write each camera's card\n"
    "                                   files to DIR/SERIAL/NAME\n"
    "  --verbose                        list the devices, and each plug and unplug,\n"
    "                                   on standard error\n"
    "  --help                           show this help\n"
    "\n"
    "Exits with the status of PROGRAM (128 + the signal if it was killed).\n"
    "Example: qkcam-virtual --camera SX160:QKS0001 --camera A1400:QKS0002 -- qkcam-list\n"
    "         qkcam-virtual --camera SX160:QKS0001 --plug-after 1500 A1400:QKS0002 \\\n"
    "                       --unplug-after 4000 QKS0002 -- camera_watch 6\n";

volatile sig_atomic_t childPid = 0;

void Forward(int signal)
{
    if (childPid > 0)
        kill(childPid, signal);
}

bool SplitFields(const std::string& text, std::vector<std::string>& fields, size_t atMost)
{
    fields.clear();
    size_t start = 0;
    while (fields.size() + 1 < atMost) {
        size_t colon = text.find(':', start);
        if (colon == std::string::npos)
            break;
        fields.push_back(text.substr(start, colon - start));
        start = colon + 1;
    }
    fields.push_back(text.substr(start));
    return true;
}

bool ParseCamera(const std::string& text, qksim::CameraSetup& setup)
{
    std::vector<std::string> fields;
    SplitFields(text, fields, 3);
    if (fields.size() < 2 || fields[0].empty() || fields[1].empty())
        return false;
    setup.model = fields[0];
    setup.serial = fields[1];
    if (fields.size() == 3)
        setup.product = fields[2];
    return true;
}

struct OtherDevice {
    uint16_t vendorId = 0;
    uint16_t productId = 0;
    std::string product;
};

bool ParseHexId(const std::string& text, uint16_t& id)
{
    char* end = nullptr;
    unsigned long value = std::strtoul(text.c_str(), &end, 16);
    if (text.empty() || *end != '\0' || value > 0xFFFF)
        return false;
    id = static_cast<uint16_t>(value);
    return true;
}

bool ParseOther(const std::string& text, OtherDevice& device)
{
    std::vector<std::string> fields;
    SplitFields(text, fields, 3);
    if (fields.size() != 3 || !ParseHexId(fields[0], device.vendorId) ||
        !ParseHexId(fields[1], device.productId))
        return false;
    device.product = fields[2];
    return true;
}

bool NamesCamera(const std::string& serial, const std::vector<qksim::CameraSetup>& cameras,
                 const std::vector<qksim::HotplugEvent>& hotplugs)
{
    for (const auto& setup : cameras)
        if (setup.serial == serial)
            return true;
    for (const auto& event : hotplugs)
        if (event.plug && event.setup.serial == serial)
            return true;
    return false;
}

// Milliseconds: decimal digits only, at most a day.
bool ParseDelay(const std::string& text, unsigned& delayMs)
{
    if (text.empty() || text.size() > 8 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    unsigned long value = std::strtoul(text.c_str(), nullptr, 10);
    if (value > 24ul * 3600 * 1000)
        return false;
    delayMs = static_cast<unsigned>(value);
    return true;
}

// The schedule's times count from the start of the child.
int RunChild(char** programArgs, qksim::HotplugSchedule& schedule)
{
    if (!qksim::HasPreload(std::getenv("LD_PRELOAD")))
        setenv("LD_PRELOAD", qksim::WithPreload(std::getenv("LD_PRELOAD")).c_str(), 1);
    setenv("ASAN_OPTIONS", qksim::WithAsanLinkOrderOff(std::getenv("ASAN_OPTIONS")).c_str(), 1);
    setenv("UMOCKDEV_DIR", qksim::VirtualBus::Instance().RootDir().c_str(), 1);

    // Like a shell running a command: the terminal's interrupt reaches the
    // child directly; the launcher outlives it to clean up.
    struct sigaction ignore {};
    ignore.sa_handler = SIG_IGN;
    struct sigaction forward {};
    forward.sa_handler = Forward;
    struct sigaction oldInt {}, oldQuit {};
    sigaction(SIGINT, &ignore, &oldInt);
    sigaction(SIGQUIT, &ignore, &oldQuit);
    sigaction(SIGTERM, &forward, nullptr);
    sigaction(SIGHUP, &forward, nullptr);

    pid_t pid = fork();
    if (pid < 0) {
        std::perror("qkcam-virtual: fork");
        return 127;
    }
    if (pid == 0) {
        sigaction(SIGINT, &oldInt, nullptr);
        sigaction(SIGQUIT, &oldQuit, nullptr);
        execvp(programArgs[0], programArgs);
        std::fprintf(stderr, "qkcam-virtual: cannot run %s: %s\n", programArgs[0], std::strerror(errno));
        _exit(127);
    }
    childPid = pid;
    schedule.Start();
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            std::perror("qkcam-virtual: waitpid");
            return 127;
        }
    }
    childPid = 0;
    schedule.Stop();
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return 127;
}

// Every file on each camera's card, as DIR/SERIAL/NAME.
bool WriteCards(const std::string& dir, const std::vector<std::shared_ptr<qksim::VirtualCamera>>& cameras)
{
    mkdir(dir.c_str(), 0777);
    for (const auto& camera : cameras) {
        const std::string folder = dir + "/" + camera->Setup().serial;
        mkdir(folder.c_str(), 0777);
        for (const qksim::CardObject& object : camera->Card().Objects()) {
            if (object.IsFolder() || !object.bytes)
                continue;
            const std::string path = folder + "/" + object.name;
            FILE* file = std::fopen(path.c_str(), "wb");
            const bool written = file && std::fwrite(object.bytes->data(), 1, object.bytes->size(), file) ==
                                             object.bytes->size();
            if (!file || std::fclose(file) != 0 || !written) {
                std::fprintf(stderr, "qkcam-virtual: cannot write %s\n", path.c_str());
                return false;
            }
        }
    }
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    // The launcher runs with the preload too: umockdev sends uevents through
    // the mock sysfs, which only the preload shows.
    if (!qksim::VirtualBus::EnsurePreload(argc, argv))
        return 127;
    std::vector<qksim::CameraSetup> cameras;
    std::vector<OtherDevice> others;
    std::vector<qksim::HotplugEvent> hotplugs;
    bool verbose = false;
    // Live preview.
    qksim::PreviewSettings preview = qksim::PreviewSettings::Sized(720, 240);
    int programAt = -1;
    std::string tracePath;
    std::string cardDir;
    int pictureWidth = 320, pictureHeight = 240;
    size_t pictureBytes = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--") {
            programAt = i + 1;
            break;
        }
        if (arg == "--verbose" || arg == "-v") {
            verbose = true;
            continue;
        }
        if ((arg == "--camera" || arg == "--other") && i + 1 < argc) {
            const std::string value = argv[++i];
            qksim::CameraSetup setup;
            OtherDevice other;
            if (arg == "--camera" && ParseCamera(value, setup)) {
                cameras.push_back(setup);
                continue;
            }
            if (arg == "--other" && ParseOther(value, other)) {
                others.push_back(other);
                continue;
            }
            std::fprintf(stderr, "qkcam-virtual: bad value for %s: %s\n", arg.c_str(), value.c_str());
            return 2;
        }
        if (arg == "--trace" && i + 1 < argc) {
            tracePath = argv[++i];
            continue;
        }
        if (arg == "--picture" && i + 1 < argc) {
            const std::string value = argv[++i];
            const int fields = std::sscanf(value.c_str(), "%dx%d:%zu", &pictureWidth, &pictureHeight, &pictureBytes);
            if (fields >= 2 && pictureWidth > 0 && pictureHeight > 0 && pictureWidth <= 8192 && pictureHeight <= 8192 &&
                pictureBytes <= (64u << 20))
                continue;
            std::fprintf(stderr, "qkcam-virtual: bad value for %s: %s\n", arg.c_str(), value.c_str());
            return 2;
        }
        if (arg == "--card-dir" && i + 1 < argc) {
            cardDir = argv[++i];
            continue;
        }
        // Live preview.
        if (arg == "--preview" && i + 1 < argc) {
            const std::string value = argv[++i];
            if (qksim::ParsePreviewSettings(value, &preview))
                continue;
            std::fprintf(stderr, "qkcam-virtual: bad value for %s: %s\n", arg.c_str(), value.c_str());
            return 2;
        }
        if ((arg == "--plug-after" || arg == "--unplug-after") && i + 2 < argc) {
            const std::string delay = argv[++i];
            const std::string value = argv[++i];
            qksim::HotplugEvent event;
            event.plug = arg == "--plug-after";
            bool valid = ParseDelay(delay, event.delayMs);
            if (event.plug)
                valid = valid && ParseCamera(value, event.setup);
            else
                event.setup.serial = value;
            if (valid && !value.empty()) {
                hotplugs.push_back(event);
                continue;
            }
            std::fprintf(stderr, "qkcam-virtual: bad value for %s: %s %s\n", arg.c_str(), delay.c_str(),
                         value.c_str());
            return 2;
        }
        std::fprintf(stderr, "qkcam-virtual: unexpected argument %s\n%s", arg.c_str(), kUsage);
        return 2;
    }
    if (programAt < 0 || programAt >= argc) {
        std::fprintf(stderr, "qkcam-virtual: no program to run\n%s", kUsage);
        return 2;
    }

    const size_t plugged = cameras.size() + static_cast<size_t>(std::count_if(
        hotplugs.begin(), hotplugs.end(), [](const qksim::HotplugEvent& event) { return event.plug; }));
    if (plugged > static_cast<size_t>(qksim::VirtualBus::maxCameras)) {
        std::fprintf(stderr, "qkcam-virtual: %zu cameras asked for, at most %d can be emulated\n", plugged,
                     qksim::VirtualBus::maxCameras);
        return 2;
    }
    for (const auto& event : hotplugs) {
        if (!event.plug && !NamesCamera(event.setup.serial, cameras, hotplugs)) {
            std::fprintf(stderr, "qkcam-virtual: --unplug-after: no camera with serial %s\n",
                         event.setup.serial.c_str());
            return 2;
        }
    }

    if (!tracePath.empty()) {
        if (!qksim::CommandTrace::Open(tracePath)) {
            std::fprintf(stderr, "qkcam-virtual: cannot write the trace %s: %s\n", tracePath.c_str(),
                         std::strerror(errno));
            return 2;
        }
        setenv("QKCAM_TRACE", tracePath.c_str(), 1);
    }
    qksim::VirtualBus& bus = qksim::VirtualBus::Instance();
    qksim::HotplugSchedule schedule(bus, verbose);
    for (const auto& event : hotplugs)
        schedule.Add(event);
    std::vector<std::shared_ptr<qksim::VirtualCamera>> added;
    for (const auto& setup : cameras) {
        auto camera = bus.AddCamera(setup);
        if (!camera) {
            std::fprintf(stderr, "qkcam-virtual: cannot add camera %s:%s\n", setup.model.c_str(),
                         setup.serial.c_str());
            return 1;
        }
        if (verbose) {
            const std::wstring path = camera->Path();
            std::fprintf(stderr, "qkcam-virtual: %s, serial %s, at %ls\n", camera->Setup().product.c_str(),
                         setup.serial.c_str(), path.c_str());
        }
        camera->Preview().SetSettings(preview); // live preview
        camera->Shutter().SetPictureSize(pictureWidth, pictureHeight);
        camera->Shutter().SetPictureBytes(pictureBytes);
        added.push_back(camera);
        schedule.AddPresent(camera);
    }
    for (const auto& other : others) {
        bus.AddOtherDevice(other.vendorId, other.productId, other.product);
        if (verbose)
            std::fprintf(stderr, "qkcam-virtual: %04x:%04x %s\n", other.vendorId, other.productId,
                         other.product.c_str());
    }

    int status = RunChild(argv + programAt, schedule);
    if (!cardDir.empty() && !WriteCards(cardDir, added) && status == 0)
        status = 1;
    added.clear();
    bus.RemoveAll();
    qksim::CommandTrace::Close();
    return status;
}
