// SPDX-License-Identifier: MIT
// The soak's operations: each does what a host does and checks what came
// back against what the virtual camera holds.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "bench/SoakCamera.h"
#include "proc/ContProc.h"
#include "sim/CameraCard.h"
#include "sim/CameraLens.h"
#include "sim/CameraPreview.h"
#include "sim/CameraShutter.h"

namespace soak {

namespace {

std::string Returned(const std::string& call, QKResult result)
{
    return call + " returned " + std::to_string(static_cast<int>(result));
}

uint32_t Le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | static_cast<uint32_t>(p[3]) << 24; }

// The picture GetPreviewFrame lends: a whole 24-bit BMP file, bottom row
// first, with the camera's colour bars across its upper two thirds.
Check CheckPicture(const uint8_t* file, int size, uint32_t frameHeight)
{
    const uint32_t width = frameHeight * 4 / 3;
    const uint32_t rowBytes = (3 * width + 3) & ~3u;
    const uint32_t expected = 54 + rowBytes * frameHeight;
    if (size < 54 || file[0] != 'B' || file[1] != 'M' || Le32(file + 2) != static_cast<uint32_t>(size))
        return Check::Wrong("preview picture is no BMP file of its size (" + std::to_string(size) + " bytes)");
    if (Le32(file + 18) != width || Le32(file + 22) != frameHeight || static_cast<uint32_t>(size) != expected)
        return Check::Wrong("preview picture " + std::to_string(Le32(file + 18)) + "x" +
                            std::to_string(Le32(file + 22)) + " in " + std::to_string(size) + " bytes, expected " +
                            std::to_string(width) + "x" + std::to_string(frameHeight));
    const uint32_t y = qksim::CameraPreview::BarRows(frameHeight) / 2;
    for (uint32_t bar = 0; bar < 8; ++bar) {
        const uint8_t* p = file + 54 + (frameHeight - 1 - y) * rowBytes + 3 * (width * (2 * bar + 1) / 16);
        const qksim::Rgb want = qksim::CameraPreview::BarColours()[bar];
        if (std::abs(p[2] - want.red) > 3 || std::abs(p[1] - want.green) > 3 || std::abs(p[0] - want.blue) > 3)
            return Check::Wrong("preview picture: colour bar " + std::to_string(bar) + " is wrong");
    }
    return Check{};
}

} // namespace

bool CameraWorker::OpenSession()
{
    return Execute(Op::Session, true, [this] {
        QKResult r = device->PTPOpenSession();
        if (r != QK_OK)
            return Check::Failed(Returned("PTPOpenSession", r));
        if ((r = device->QKMLoadSerialNumber()) != QK_OK)
            return Check::Failed(Returned("QKMLoadSerialNumber", r));
        if (wstrToStr(device->GetSerialNumber()) != setup.serial)
            return Check::Wrong("serial number read as \"" + wstrToStr(device->GetSerialNumber()) + "\"");
        if ((r = device->QKMLoadVersion("1.0")) != QK_OK)
            return Check::Failed(Returned("QKMLoadVersion", r));
        if ((r = device->PTPWaitForRecMode()) != QK_OK)
            return Check::Failed(Returned("PTPWaitForRecMode", r));
        if ((r = device->LoadCameraFlags()) != QK_OK)
            return Check::Failed(Returned("LoadCameraFlags", r));
        if ((r = device->InitialLoadProperties()) != QK_OK)
            return Check::Failed(Returned("InitialLoadProperties", r));
        return Check{};
    });
}

void CameraWorker::Reinit()
{
    // A host opening the camera again; its transport calls are not bulk
    // transfers, so no fault is aimed at it.
    Execute(Op::Reinit, false, [this] {
        QKResult r = device->Init();
        if (r != QK_OK)
            return Check::Failed(Returned("Init on an opened camera", r));
        if ((r = device->QKMLoadSerialNumber()) != QK_OK)
            return Check::Failed(Returned("QKMLoadSerialNumber after a second Init", r));
        return Check{};
    });
}

void CameraWorker::SetProperty()
{
    // A writable property with another value on offer now, picked from the cache.
    int* list = nullptr;
    int count = 0;
    if (device->GetPropertyList(&list, &count) != QK_OK || !list)
        return;
    std::vector<int> properties(list, list + count);
    device->FreePointer(list);
    std::shuffle(properties.begin(), properties.end(), rng);
    int property = -1, value = 0;
    for (int candidate : properties) {
        QKProp_Desc* desc = nullptr;
        int current = 0;
        if (device->GetPropertyDesc(candidate, &desc) != QK_OK || !desc)
            continue;
        std::vector<int> others;
        if (!desc->readOnly && device->GetPropertyData(candidate, &current) == QK_OK)
            for (int i = 0; i < desc->count; ++i)
                if (desc->values[i] != current)
                    others.push_back(desc->values[i]);
        device->FreePointer(desc);
        if (!others.empty()) {
            property = candidate;
            value = others[static_cast<size_t>(Pick(static_cast<int>(others.size())))];
            break;
        }
    }
    if (property < 0)
        return;
    const char* propertyName = "?";
    const char* valueName = nullptr;
    GetPropertyName(property, &propertyName);
    GetPropertyValName(property, value, &valueName);
    const bool byName = valueName && Chance(0.5);
    const std::string setting = std::string(propertyName) + "=" + (valueName ? valueName : std::to_string(value));
    Execute(Op::Property, true, [&] {
        const QKResult r = byName ? device->SetPropertyDataByName(property, valueName)
                                  : device->SetPropertyData(property, value);
        if (r != QK_OK)
            return Check::Failed(Returned(byName ? "SetPropertyDataByName" : "SetPropertyData", r) + " for " + setting);
        int now = -1;
        if (device->GetPropertyData(property, &now) != QK_OK || now != value)
            return Check::Wrong("after setting " + setting + " the cache holds " + std::to_string(now));
        return Check{};
    });
}

void CameraWorker::Zoom()
{
    int maxZoom = 0, current = 0;
    if (device->GetMaximumZoom(&maxZoom) != QK_OK || maxZoom <= 0 || device->GetZoom(&current) != QK_OK)
        return;
    int target = Pick(maxZoom);
    if (target >= current)
        ++target; // any position but the current one
    Execute(Op::Zoom, true, [&] {
        const QKResult r = ContProc::run(device->PTPSetZoom(target));
        if (r != QK_OK)
            return Check::Failed(Returned("PTPSetZoom to " + std::to_string(target), r));
        int reported = -1;
        device->GetZoom(&reported);
        const int lens = camera->Lens().ZoomPosition();
        if (reported != target || lens != target)
            return Check::Wrong("zoom to " + std::to_string(target) + ": engine says " + std::to_string(reported) +
                                ", lens is at " + std::to_string(lens));
        return Check{};
    });
}

void CameraWorker::Preview()
{
    const uint32_t height = camera->Preview().Settings().Height();
    Execute(Op::Preview, true, [&] {
        QKResult r = device->PTPLoadPreviewFrame();
        if (r != QK_OK)
            return Check::Failed(Returned("PTPLoadPreviewFrame", r));
        void* picture = nullptr;
        int size = 0;
        if ((r = device->GetPreviewFrame(&picture, &size)) != QK_OK || !picture)
            return Check::Wrong(Returned("GetPreviewFrame after a loaded frame", r));
        Check check = CheckPicture(static_cast<const uint8_t*>(picture), size, height);
        device->FreePointer(picture);
        return check;
    });
}

Check CameraWorker::DownloadAndCompare(int id, const std::vector<uint8_t>& expected)
{
    const std::string path = config.dir + "/" + setup.serial + ".download";
    const QKResult r = device->PTPDownloadFile(id, path);
    if (r != QK_OK) {
        std::remove(path.c_str());
        return Check::Failed(Returned("PTPDownloadFile of " + std::to_string(id), r));
    }
    std::ifstream in(path, std::ios::binary);
    const std::vector<uint8_t> got{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    in.close();
    std::remove(path.c_str());
    if (got == expected)
        return Check{};
    const auto differ = std::mismatch(got.begin(), got.end(), expected.begin(), expected.end());
    return Check::Wrong("download of " + std::to_string(id) + ": " + std::to_string(got.size()) +
                        " bytes, the camera's file has " + std::to_string(expected.size()) +
                        "; first difference at byte " + std::to_string(differ.first - got.begin()));
}

void CameraWorker::ShootNormal()
{
    QKFileInfo shot;
    bool reported = false;
    const bool shotOk = Execute(Op::ShootNormal, true, [&] {
        const QKResult r = ContProc::run(device->PTPShoot_Normal([&](QKFileInfo file) {
            shot = file;
            reported = true;
        }));
        if (r != QK_OK)
            return Check::Failed(Returned("PTPShoot_Normal", r));
        const std::vector<qksim::CardObject> objects = camera->Card().Objects();
        auto onCard = std::find_if(objects.begin(), objects.end(), [&](const qksim::CardObject& o) {
            return reported && static_cast<int>(o.handle) == shot.id;
        });
        if (onCard == objects.end() || wstrToStr(shot.name) != onCard->name ||
            static_cast<uint32_t>(shot.size) != onCard->Size())
            return Check::Wrong(reported ? "shot reported as " + wstrToStr(shot.name) + " (" + std::to_string(shot.id) +
                                               ", " + std::to_string(shot.size) + " bytes), not so on the card"
                                         : "shot completed without a file");
        return Check{};
    });
    if (!shotOk)
        return;
    const int at = generation;
    const std::vector<uint8_t> bytes = camera->Card().Content(static_cast<uint32_t>(shot.id));
    Execute(Op::Download, true, [&] { return DownloadAndCompare(shot.id, bytes); });
    if (at != generation)
        return; // the camera was replugged: the shot went with its card
    Execute(Op::Remove, true, [&] {
        const QKResult r = device->PTPRemoveFile(shot.id);
        if (r != QK_OK)
            return Check::Failed(Returned("PTPRemoveFile", r));
        if (camera->Card().Has(static_cast<uint32_t>(shot.id)))
            return Check::Wrong("file " + std::to_string(shot.id) + " still on the card after its removal");
        return Check{};
    });
}

void CameraWorker::ShootDirect()
{
    QKFileInfo shot;
    bool reported = false;
    std::vector<uint8_t> picture;
    const bool shotOk = Execute(Op::ShootDirect, true, [&] {
        const QKResult r = ContProc::run(device->PTPShoot_Direct([&](QKFileInfo file) {
            shot = file;
            reported = true;
        }));
        if (r != QK_OK)
            return Check::Failed(Returned("PTPShoot_Direct", r));
        picture = camera->Shutter().LastRemotePicture();
        if (!reported || shot.id >= 0 || static_cast<size_t>(shot.size) != picture.size())
            return Check::Wrong("direct shot reported with id " + std::to_string(shot.id) + " and " +
                                std::to_string(shot.size) + " bytes, the camera took " +
                                std::to_string(picture.size()));
        return Check{};
    });
    if (!shotOk)
        return;
    // Both stay in the engine's memory, with no transfer a fault could hit.
    const int at = generation;
    Execute(Op::Download, false, [&] { return DownloadAndCompare(shot.id, picture); });
    if (at != generation)
        return;
    Execute(Op::Remove, false, [&] {
        const QKResult r = device->PTPRemoveFile(shot.id);
        return r == QK_OK ? Check{} : Check::Failed(Returned("PTPRemoveFile of a direct shot", r));
    });
}

void CameraWorker::DownloadExisting()
{
    if (keptFiles.empty())
        return;
    auto file = keptFiles.begin();
    std::advance(file, Pick(static_cast<int>(keptFiles.size())));
    const uint32_t handle = *file;
    const std::vector<uint8_t> bytes = camera->Card().Content(handle);
    Execute(Op::Download, true, [&] { return DownloadAndCompare(static_cast<int>(handle), bytes); });
}

} // namespace soak
