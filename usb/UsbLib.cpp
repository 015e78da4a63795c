// SPDX-License-Identifier: MIT
#include "usb/UsbLib.h"

std::weak_ptr<IUsbLib_Notify> UsbLib::EmptyNotify = std::shared_ptr<IUsbLib_Notify>();

UsbLib::UsbLib(std::weak_ptr<IUsbLib_Notify> notify)
    : notifyEnabled(notify.lock() != nullptr), notifyTarget(notify)
{
}

void UsbLib::DiscardResidue(void*) {}

void UsbLib::SendOnUsbEvent()
{
    // Hold the receiver for the whole call, so a host releasing it on another
    // thread cannot pull it away mid-call.
    if (std::shared_ptr<IUsbLib_Notify> target = notifyTarget.lock())
        target->OnUsbEvent();
}

std::wstring strToWstr(std::string text)
{
    std::wstring wide;
    wide.reserve(text.size());
    for (char c : text)
        wide.push_back(static_cast<wchar_t>(static_cast<unsigned char>(c)));
    return wide;
}

std::string wstrToStr(std::wstring text)
{
    std::string narrow;
    narrow.reserve(text.size());
    for (wchar_t c : text)
        narrow.push_back(static_cast<char>(c));
    return narrow;
}
