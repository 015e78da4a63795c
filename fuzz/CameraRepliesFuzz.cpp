// Runs the camera object's reading operations against a scripted camera whose
// replies are the fuzzer's bytes. Nothing may crash, over-read or leak.

#include <cstddef>
#include <cstdint>
#include <functional>

#include "DevicePTP/DevicePTP.h"
#include "fuzz/ScriptedUsb.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool quiet = [] {
        LoggerSpecialInit(false, "/dev/null", "/dev/null");
        return true;
    }();
    (void)quiet;

    auto usb = std::make_shared<ScriptedUsb>(data, size);
    std::shared_ptr<DevicePTP> camera = DevicePTP::build(usb, L"1193:12353:1:2");
    camera->Init();
    camera->QKMLoadSerialNumber();
    camera->QKMLoadVersion("1.2.3.4");
    std::vector<int> words;
    camera->PTPQKMGet(0x9D, 2, &words);
    camera->PTPLoadEvents();
    camera->LoadCameraFlags();
    camera->InitialLoadProperties();
    camera->ReadCameraMode();
    camera->ReadBatteryLevel(false);
    int zoom = 0;
    camera->PTPGetZoom(&zoom);
    std::function<void(DataLen*)> sink = [](DataLen*) {};
    camera->PtpTransaction(0x1009, DevicePTP::PTPmkParams(1), TRANSACTION_GETDATA, nullptr, nullptr, &sink);
    return 0;
}
