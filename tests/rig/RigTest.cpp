// SPDX-License-Identifier: MIT
// The rig: opening a chosen set of cameras with one failing alone, an
// operation on all at once, and the synchronised shot read from the
// cameras' own arrival times.

#include <algorithm>
#include <condition_variable>
#include <thread>

#include "DevicePTP/PtpCodes.h"
#include "rig/Rig.h"
#include "sim/CameraCard.h"
#include "sim/CameraSettings.h"
#include "tests/common/VirtualCameraTest.h"

namespace {

using Failure = std::tuple<std::wstring, std::string, QKResult>;

class RigTest : public qktest::VirtualCameraTest {
protected:
    // Three models; card sizes as given.
    void AddThree(std::vector<int> cardFiles = {0, 0, 0})
    {
        const char* models[] = {"SX160", "A1400", "G15"};
        for (int i = 0; i < 3; ++i) {
            cameras.push_back(AddCamera(models[i], "R" + std::to_string(i + 1)));
            for (int n = 0; n < cardFiles[i]; ++n)
                cameras.back()->Card().AddFile(qksim::CameraCard::FileName("IMG_", 100 + n, ".JPG"), {1, 2, 3});
        }
    }
    static std::vector<std::wstring> Serials(const Rig& rig)
    {
        std::vector<std::wstring> serials;
        for (const Rig::Camera& camera : rig.Cameras())
            serials.push_back(camera.serial);
        return serials;
    }
    // When the last shoot command of the kind reached each camera.
    std::vector<int64_t> ShootArrivals(uint32_t subCommand)
    {
        std::vector<int64_t> arrivals;
        for (const auto& camera : cameras)
            for (const qksim::PtpCommand& c : camera->ReceivedCommands())
                if (c.code == 0x9999 && !c.params.empty() && c.params[0] == subCommand)
                    arrivals.push_back(c.arrivalNs);
        return arrivals;
    }
    std::vector<std::shared_ptr<qksim::VirtualCamera>> cameras;
};

TEST_F(RigTest, OpensTheChosenCamerasAndReportsEachFailureWithItsStep)
{
    struct Case {
        const char* what;
        std::vector<std::wstring> asked;
        bool secondNeverRecords;
        std::vector<std::wstring> ready;
        std::vector<Failure> failures;
    };
    const Case cases[] = {
        {"all", {}, false, {L"R1", L"R2", L"R3"}, {}},
        {"by serial, any order", {L"R3", L"R1"}, false, {L"R1", L"R3"}, {}},
        {"a serial not attached", {L"R1", L"NOPE"}, false, {L"R1"}, {{L"NOPE", "find", QK_ERROR}}},
        {"one never in record mode", {}, true, {L"R1", L"R3"}, {{L"R2", "PTPWaitForRecMode", QK_NOT_READY}}},
    };
    AddThree();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        cameras[1]->Settings().SetRecordModeAfterPolls(c.secondNeverRecords ? 1000000 : 0);
        RigOptions options;
        options.serials = c.asked;
        options.recModeLimit = std::chrono::milliseconds(300);
        std::unique_ptr<Rig> rig = Rig::Open(Transport(), options);
        EXPECT_EQ(Serials(*rig), c.ready);
        std::vector<Failure> failures;
        for (const RigOutcome& f : rig->Failures())
            failures.emplace_back(f.serial, f.step, f.result);
        EXPECT_EQ(failures, c.failures);
        // Ready means the session is open and the properties are loaded.
        for (const Rig::Camera& camera : rig->Cameras()) {
            int mode = -1;
            EXPECT_EQ(camera.device->GetPropertyData(static_cast<int>(QKProp::ShootingMode), &mode), QK_OK);
            EXPECT_FALSE(camera.device->GetModuleVersion().empty());
        }
    }
}

// Each operation waits until all three have started: only parallel workers pass.
TEST_F(RigTest, ForEachRunsOneWorkerPerCameraAndGivesOneOutcomeEach)
{
    AddThree();
    std::unique_ptr<Rig> rig = Rig::Open(Transport(), RigOptions());
    ASSERT_EQ(rig->Cameras().size(), 3u);
    std::mutex mutex;
    std::condition_variable started;
    int running = 0;
    std::vector<RigOutcome> outcomes = rig->ForEach([&](const Rig::Camera& camera, std::string* step) {
        std::unique_lock<std::mutex> lock(mutex);
        ++running;
        started.notify_all();
        if (!started.wait_for(lock, std::chrono::seconds(10), [&] { return running == 3; }))
            return QK_ERROR;
        lock.unlock();
        *step = "PTPSetZoom";
        if (camera.serial == L"R2")
            return QK_UNSUPPORTED_VALUE;
        int zoom = -1;
        return camera.device->PTPGetZoom(&zoom);
    });
    std::vector<Failure> got;
    for (const RigOutcome& o : outcomes)
        got.emplace_back(o.serial, o.step, o.result);
    EXPECT_EQ(got, (std::vector<Failure>{{L"R1", "", QK_OK}, {L"R2", "PTPSetZoom", QK_UNSUPPORTED_VALUE},
                                         {L"R3", "", QK_OK}}));
}

// Cards of 0, 100 and 1000 files: the listing before the shot takes very
// different times, yet the commands arrive together.
TEST_F(RigTest, SynchronisedShotReleasesEveryCommandTogetherAndFindsEachFile)
{
    struct Case {
        bool direct;
        bool unplugSecond;
        bool atWallClock;
    };
    for (const Case c : {Case{false, false, false}, Case{true, false, false}, Case{false, true, false},
                         Case{true, false, true}}) {
        SCOPED_TRACE(std::string(c.direct ? "direct" : "normal") + (c.unplugSecond ? ", one pulled out" : ""));
        cameras.clear();
        qksim::VirtualBus::Instance().RemoveAll();
        usb.reset();
        AddThree({0, 100, 1000});
        std::unique_ptr<Rig> rig = Rig::Open(Transport(), RigOptions());
        ASSERT_EQ(rig->Cameras().size(), 3u);
        for (const Rig::Camera& camera : rig->Cameras())
            camera.device->SetChainTimeLimit(std::chrono::milliseconds(3000));
        const uint32_t shootCommand = c.direct ? PTP_QKM_RemoteCaptureStart : PTP_QKM_Shoot;
        std::thread puller;
        if (c.unplugSecond) {
            puller = std::thread([&] {
                while (ShootArrivals(shootCommand).size() < 3)
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                cameras[1]->Unplug();
            });
        }
        const auto fireAt = std::chrono::system_clock::now() + std::chrono::milliseconds(400);
        std::vector<RigShotOutcome> shots = c.atWallClock ? rig->ShootAt(c.direct, fireAt) : rig->Shoot(c.direct);
        if (puller.joinable())
            puller.join();

        std::vector<int64_t> arrivals = ShootArrivals(shootCommand);
        ASSERT_EQ(arrivals.size(), 3u);
        const auto [first, last] = std::minmax_element(arrivals.begin(), arrivals.end());
        EXPECT_LT(*last - *first, QK_SPREAD_LIMIT_US * 1000LL);
        ASSERT_EQ(shots.size(), 3u);
        for (size_t i = 0; i < 3; ++i) {
            SCOPED_TRACE(i);
            if (c.unplugSecond && i == 1) {
                EXPECT_EQ(shots[i].result, QK_ERROR);
                EXPECT_EQ(shots[i].step, "PTPShoot_Normal");
                continue;
            }
            ASSERT_EQ(shots[i].result, QK_OK);
            EXPECT_EQ(shots[i].step, "");
            // Never before the instant asked for; the release time is the wall clock's.
            if (c.atWallClock) {
                EXPECT_GE(shots[i].released, fireAt);
            }
            EXPECT_LT(std::chrono::system_clock::now() - shots[i].released, std::chrono::seconds(10));
            if (c.direct) {
                EXPECT_LT(shots[i].file.id, 0);
                EXPECT_GT(shots[i].file.size, 0);
                continue;
            }
            // The file found is the card's new one, whole.
            const uint32_t handle = cameras[i]->Card().Find(wstrToStr(shots[i].file.name));
            ASSERT_NE(handle, 0u);
            EXPECT_EQ(static_cast<size_t>(shots[i].file.size), cameras[i]->Card().Content(handle).size());
            EXPECT_EQ(static_cast<uint32_t>(shots[i].file.id), handle);
        }
    }
}

} // namespace
