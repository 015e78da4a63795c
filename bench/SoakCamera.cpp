// SPDX-License-Identifier: MIT
// The soak's camera thread: its life cycle, the loop of sessions and the
// classification of every operation.

#include "bench/SoakCamera.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "log/Log.h"
#include "sim/CameraCard.h"
#include "sim/CameraPreview.h"

namespace soak {

namespace {

const char* const models[] = {"SX160", "A1400", "SX410IS", "IXUS160", "G15", "SX500", "A2200", "SX520"};
const char* const previewSizes[] = {"720x240", "360x240", "704x480", "720x180:240"};

constexpr int opsPerSession = 12;
constexpr double reinitChance = 0.05;
// A fault armed while the operation runs lands somewhere inside it.
constexpr int maxMidwayDelayMs = 200;
constexpr int64_t replugLimitMs = 10000;
// How far back a fault is named beside an unexpected failure.
constexpr int recentOps = 5;

} // namespace

int64_t NowMs()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void Sleep(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

CameraWorker::CameraWorker(int index_, const Config& config_, Stats& stats_)
    : index(index_), config(config_), stats(stats_), rng(config_.seed * 1000003u + static_cast<uint64_t>(index_))
{
    setup.model = models[static_cast<size_t>(index) % (sizeof(models) / sizeof(models[0]))];
    char serial[16];
    std::snprintf(serial, sizeof serial, "QKS%04d", index + 1);
    setup.serial = serial;
}

CameraWorker::~CameraWorker()
{
    device.reset();
    if (camera)
        qksim::VirtualBus::Instance().Remove(camera);
}

std::string CameraWorker::Name() const { return setup.serial + " " + setup.model; }

bool CameraWorker::Chance(double p) { return std::uniform_real_distribution<double>(0, 1)(rng) < p; }
int CameraWorker::Pick(int count) { return std::uniform_int_distribution<int>(0, count - 1)(rng); }

bool CameraWorker::Plug()
{
    camera = qksim::VirtualBus::Instance().AddCamera(setup);
    if (camera)
        SetUpCamera();
    return camera != nullptr;
}

void CameraWorker::SetUpCamera()
{
    qksim::PreviewSettings preview;
    if (qksim::ParsePreviewSettings(previewSizes[static_cast<size_t>(index) % 4], &preview))
        camera->Preview().SetSettings(preview);
    // A movie of several chunks, so that downloads cross the chunk boundaries.
    const size_t movie = (1u << 20) + static_cast<size_t>(index) * 131071u;
    camera->Card().AddFile("MVI_0900.MOV", qksim::FillerBytes(movie, static_cast<uint8_t>(index)));
    keptFiles.clear();
    for (const qksim::CardObject& object : camera->Card().Objects())
        if (!object.IsFolder())
            keptFiles.insert(object.handle);
}

bool CameraWorker::Connect(std::shared_ptr<UsbLib> transport)
{
    usb = std::move(transport);
    device = DevicePTP::build(usb, camera->Path());
    return device->Init() == QK_OK;
}

bool CameraWorker::Execute(Op op, bool faultable, const std::function<Check()>& body)
{
    Fault fault = faultable && Chance(config.faultRate) ? PickFault() : Fault::None;
    const bool midway = fault != Fault::None && !WritesRawReply(fault) && Chance(0.5);
    if (op == Op::Session)
        nextTransId = 0; // opening a session starts the ids again
    busyOp = static_cast<int>(op);
    busyFault = static_cast<int>(fault);
    busySinceMs = NowMs();
    // Marks in the engine's log, so that its lines can be told apart by operation.
    QK_LOG_INF("soak %s: %s, fault %s%s", setup.serial.c_str(), OpName(op), FaultName(fault),
               midway ? " (midway)" : "");

    std::mutex mutex;
    std::condition_variable wake;
    bool done = false;
    std::thread arming;
    const uint64_t draw = rng();
    if (fault != Fault::None && !midway)
        Arm(fault, draw);
    else if (midway)
        arming = std::thread([&, delay = 1 + Pick(maxMidwayDelayMs)] {
            std::unique_lock<std::mutex> lock(mutex);
            if (!wake.wait_for(lock, std::chrono::milliseconds(delay), [&] { return done; }))
                Arm(fault, draw);
        });

    Check check = body();

    if (arming.joinable()) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        wake.notify_all();
        arming.join();
    }
    busySinceMs = 0;
    bool mustReplug = fault == Fault::Unplug;
    if (fault != Fault::None && !mustReplug)
        Disarm();
    const std::vector<qksim::PtpCommand> sent = camera->ReceivedCommands();
    if (WritesRawReply(fault)) {
        if (sent.empty()) {
            // The bytes wait for a command that never came: they would be
            // the answer to the next operation's.
            stats.Count("raw replies no command took (camera replugged)");
            mustReplug = true;
        } else if (sent.front().transId != nextTransId) {
            stats.Count("raw replies with another transaction id than the engine's");
        }
    }
    if (!sent.empty())
        nextTransId = sent.back().transId + 1;
    camera->ClearRecords();

    Outcome outcome;
    if (check.wrongData || (!check.ok && fault == Fault::None))
        outcome = Outcome::Unexpected;
    else if (!check.ok)
        outcome = Outcome::Expected;
    else
        outcome = fault == Fault::None ? Outcome::Ok : Outcome::Recovered;
    stats.Record(op, fault, outcome);
    if (outcome != Outcome::Ok)
        QK_LOG_INF("soak %s: %s %s: %s", setup.serial.c_str(), OpName(op),
                   outcome == Outcome::Unexpected ? "UNEXPECTED" : check.ok ? "recovered" : "failed as expected",
                   check.what.c_str());
    if (outcome == Outcome::Unexpected) {
        UnexpectedFailure failure;
        failure.camera = Name();
        failure.op = op;
        failure.fault = fault;
        failure.faultMidway = midway;
        if (lastFault != Fault::None && opsSinceFault < recentOps) {
            failure.lastFaultOp = lastFaultOp;
            failure.lastFault = lastFault;
            failure.lastFaultAgo = opsSinceFault;
        }
        failure.what = check.what;
        stats.RecordUnexpected(std::move(failure));
        // Whatever broke, the next operations get a clean start.
        stats.Count("replugs after an unexpected failure");
        mustReplug = true;
    }
    ++opsSinceFault;
    if (fault != Fault::None) {
        lastFaultOp = op;
        lastFault = fault;
        opsSinceFault = 0;
    }
    if (mustReplug) {
        Replug();
    } else if (fault != Fault::None) {
        Settle();
    }
    return outcome == Outcome::Ok || outcome == Outcome::Recovered;
}

bool CameraWorker::Replug()
{
    const int64_t start = NowMs();
    busyOp = static_cast<int>(Op::Replug);
    busyFault = 0;
    busySinceMs = start;
    QK_LOG_INF("soak %s: replug", setup.serial.c_str());
    ++generation;
    device.reset();
    std::string what;
    if (camera) {
        camera->Unplug();
        const std::wstring gone = camera->Path();
        while (usb->GetAllConnectedDevicePaths().count(gone) && NowMs() - start < replugLimitMs)
            Sleep(20);
        qksim::VirtualBus::Instance().Remove(camera);
        camera.reset();
    }
    camera = qksim::VirtualBus::Instance().AddCamera(setup);
    if (!camera) {
        what = "the bus took no camera";
    } else {
        SetUpCamera();
        while (!usb->GetAllConnectedDevicePaths().count(camera->Path()) && NowMs() - start < replugLimitMs)
            Sleep(20);
        device = DevicePTP::build(usb, camera->Path());
        QKResult result = QK_ERROR;
        while ((result = device->Init()) != QK_OK && NowMs() - start < replugLimitMs)
            Sleep(100);
        if (result != QK_OK) {
            what = "Init failed for 10 s after the camera came back";
            device.reset();
        }
    }
    nextTransId = 0;
    lastFault = Fault::None; // a fresh camera and engine object
    busySinceMs = 0;
    stats.Record(Op::Replug, Fault::None, what.empty() ? Outcome::Ok : Outcome::Unexpected);
    if (!what.empty()) {
        UnexpectedFailure failure;
        failure.camera = Name();
        failure.op = Op::Replug;
        failure.what = what;
        stats.RecordUnexpected(std::move(failure));
    }
    return what.empty();
}

void CameraWorker::Tidy()
{
    // Shots whose removal failed (by an injected fault) would fill the card.
    for (const qksim::CardObject& object : camera->Card().Objects())
        if (!object.IsFolder() && !keptFiles.count(object.handle)) {
            camera->Card().Remove(object.handle);
            stats.Count("card files left behind by failed operations");
        }
}

void CameraWorker::Run(const std::atomic<bool>& stop)
{
    while (!stop) {
        if (!device) {
            if (!Replug())
                Sleep(1000);
            continue;
        }
        const int at = generation;
        if (sessions > 0 && Chance(reinitChance)) {
            Reinit();
            if (at != generation)
                continue;
        }
        if (!OpenSession())
            continue;
        for (int k = 0; k < opsPerSession && !stop && at == generation; ++k) {
            switch (Pick(14)) {
            case 0: case 1: case 2: case 3:
                SetProperty();
                break;
            case 4: case 5:
                Zoom();
                break;
            case 6: case 7: case 8: case 9:
                Preview();
                break;
            case 10: case 11:
                ShootNormal();
                break;
            case 12:
                ShootDirect();
                break;
            default:
                DownloadExisting();
                break;
            }
        }
        if (camera)
            Tidy();
        ++sessions;
    }
    finished = true;
}

} // namespace soak
