// SPDX-License-Identifier: MIT
// Writes the seed corpus: for every family, the conversation of the virtual
// camera's own answers, recorded as the engine reads it, so that each reader
// starts from a reply the camera really gives. Run it after changing a
// family or the camera: camera_replies_corpus fuzz/corpus

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/CameraFamilies.h"
#include "fuzz/ScriptedUsb.h"
#include "sim/VirtualCameraImpl.h"

using namespace qksim;

namespace {

// A virtual camera that is never put on a bus: the engine talks to its
// responder directly, through RecordingUsb. Its card starts empty.
struct SimCamera : VirtualCameraImpl {
    explicit SimCamera(const std::string& model) : VirtualCameraImpl(Setup(model)) { Card().Clear(); }
    static CameraSetup Setup(const std::string& model)
    {
        CameraSetup setup;
        setup.model = model;
        setup.product = "QK Virtual Camera " + model;
        return setup;
    }
};

// A script that the responder's answers extend; what the engine read of it
// is the recording.
class RecordingUsb : public ScriptedUsb {
public:
    RecordingUsb(PtpResponder& responder_, std::wstring product)
        : ScriptedUsb(nullptr, 0, std::move(product)), responder(responder_)
    {
    }
    bool Write(DataLen* buffer, void*) override
    {
        const uint8_t* bytes = static_cast<const uint8_t*>(buffer->data);
        for (const auto& container : responder.Receive(std::vector<uint8_t>(bytes, bytes + buffer->len)))
            script.insert(script.end(), container.begin(), container.end());
        return true;
    }
    std::vector<uint8_t> Recorded() const { return {script.begin(), script.begin() + position}; }

private:
    PtpResponder& responder;
};

struct Seed {
    const char* name;
    Family family;
    uint8_t flags;
    std::function<void(SimCamera&)> prepare;
};

const char* const models[] = {"SX160", "A1400", "A810", "SX170"};
constexpr uint8_t logging = fuzzflags::memoryLog | fuzzflags::voltageLog;

constexpr uint8_t Model(int index) { return static_cast<uint8_t>(index << fuzzflags::modelShift); }

void SmallCard(SimCamera& camera)
{
    camera.Card().AddFile("IMG_0001.JPG", FillerBytes(700, 1));
}

void SmallShots(SimCamera& camera)
{
    camera.Shutter().SetShotDuration(0);
    camera.Shutter().SetRemoteReadyDelay(0);
    camera.Shutter().SetPictureSize(16, 16);
}

const Seed seeds[] = {
    {"session-sx160", Family::Session, 0, [](SimCamera&) {}},
    {"session-a1400", Family::Session, Model(1), [](SimCamera&) {}},
    {"session-sx170", Family::Session, Model(3), [](SimCamera&) {}},
    {"catalogue", Family::Catalogue, 0,
     [](SimCamera& c) {
         c.Card().AddFile("IMG_0001.JPG", FillerBytes(300, 1));
         c.Card().AddFile("IMG_0012.JPG", FillerBytes(200, 2));
         c.Card().AddFile("IMG_0013.CR2", FillerBytes(100, 3));
     }},
    {"download", Family::Download, 0, SmallCard},
    {"download-retry", Family::Download, 0,
     [](SimCamera& c) {
         SmallCard(c);
         c.Card().GeneralErrorAfterData(c.Card().Find("IMG_0001.JPG"), 1);
     }},
    {"download-logging-a810", Family::Download, Model(2) | logging, SmallCard},
    {"preview", Family::Preview, 0, [](SimCamera& c) { c.Preview().SetSettings(PreviewSettings::Sized(16, 8)); }},
    // Wide enough for the vector kernels.
    {"preview-height180", Family::Preview, 0,
     [](SimCamera& c) { c.Preview().SetSettings(PreviewSettings::Height180(64, 48)); }},
    {"direct-shot", Family::DirectShot, 0,
     [](SimCamera& c) {
         SmallShots(c);
         c.Shutter().SetRemoteChunking(256, true);
     }},
    {"direct-shot-logging", Family::DirectShot, logging, SmallShots},
    {"normal-shot", Family::NormalShot, 0, SmallShots},
    {"diagnostics", Family::Diagnostics, 0, [](SimCamera& c) { c.Shutter().SetCameraLog("lens ok\n"); }},
    {"lens", Family::Lens, 0, [](SimCamera& c) { c.Lens().SetZoomTimePerPosition(std::chrono::milliseconds(0)); }},
};

// Transport inputs: reads (options, 16-bit length) and the transfers they cause.
struct TransportSeed {
    const char* name;
    std::vector<uint8_t> bytes;
};

const TransportSeed transportSeeds[] = {
    // A header, the rest of its packet, then a short packet read in two.
    {"transport-residue", {0, 12, 0, 4, 0, 244, 1, 0, 12, 0, 0, 40, 0, 28, 0, 0, 12, 0, 4}},
    // A read past the residue, then one of 3200 bytes in two transfers.
    {"transport-large", {0, 12, 0, 4, 0, 232, 3, 4, 1, 100, 0, 8, 20, 4, 0, 12, 0, 0, 12}},
    // Stalls, whole packets before a stall, a time-out.
    {"transport-stall", {0, 12, 0, 5, 4, 0, 0x4C, 0x04, 5, 4, 0, 12, 0, 6, 0, 12, 0, 4}},
};

bool WriteInput(const std::filesystem::path& path, const std::vector<uint8_t>& bytes)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    std::printf("%-24s %6zu bytes\n", path.filename().c_str(), bytes.size());
    return static_cast<bool>(out);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s CORPUS_DIRECTORY\n", argv[0]);
        return 2;
    }
    LoggerSpecialInit(false, "/dev/null", "/dev/null");
    const std::filesystem::path directory = argv[1];
    std::filesystem::create_directories(directory);
    const std::string download = (std::filesystem::temp_directory_path() / "qkfuzz-corpus-download").string();
    bool written = true;
    for (const Seed& seed : seeds) {
        SimCamera camera(models[(seed.flags >> fuzzflags::modelShift) & 3]);
        seed.prepare(camera);
        auto usb = std::make_shared<RecordingUsb>(camera.Responder(), FamilyProduct(seed.flags));
        RunCameraFamily(seed.family, seed.flags, usb, download);
        std::vector<uint8_t> input = {static_cast<uint8_t>(seed.family), seed.flags};
        const std::vector<uint8_t> recorded = usb->Recorded();
        input.insert(input.end(), recorded.begin(), recorded.end());
        written = WriteInput(directory / seed.name, input) && written;
    }
    std::filesystem::remove(download);
    for (const TransportSeed& seed : transportSeeds) {
        std::vector<uint8_t> input = {static_cast<uint8_t>(Family::Transport), 0};
        input.insert(input.end(), seed.bytes.begin(), seed.bytes.end());
        written = WriteInput(directory / seed.name, input) && written;
    }
    return written ? 0 : 1;
}
