// SPDX-License-Identifier: MIT
#pragma once
// A transport that serves a camera's side of the conversation from a byte
// script, at memory speed: every Read takes the next bytes of the script,
// every Write succeeds. Feeding it arbitrary bytes shows how the engine
// copes with anything a broken or hostile camera could send.

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "usb/UsbLib.h"

class ScriptedUsb : public UsbLib {
public:
    ScriptedUsb(const uint8_t* data, size_t size, std::wstring product)
        : UsbLib(UsbLib::EmptyNotify), script(data, data + size), name(std::move(product))
    {
    }

    std::set<std::wstring> GetAllConnectedDevicePaths() override { return {L"1193:12353:1:2"}; }
    void* OpenDevice(std::wstring) override { return this; }
    void CloseDevice(void*) override {}
    std::wstring GetDeviceName(void*) override { return name; }
    bool Read(DataLen* buffer, void*) override
    {
        if (script.size() - position < buffer->len)
            return false;
        if (buffer->len)
            std::memcpy(buffer->data, script.data() + position, buffer->len);
        position += buffer->len;
        return true;
    }
    bool Write(DataLen*, void*) override { return true; }

protected:
    std::vector<uint8_t> script;
    size_t position = 0; // what was read so far is script[0, position)
    std::wstring name;
};
