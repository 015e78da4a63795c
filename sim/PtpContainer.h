// SPDX-License-Identifier: MIT
#pragma once
// PTP bulk containers as they travel over USB: a 12-byte little-endian
// header (length, type, code, transaction id) and a payload.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace qksim {

namespace ptp {

constexpr uint16_t kCommand = 1;
constexpr uint16_t kData = 2;
constexpr uint16_t kResponse = 3;

constexpr uint32_t kHeaderSize = 12;
constexpr uint32_t kMaxParams = 5;

constexpr uint16_t OC_OpenSession = 0x1002;
constexpr uint16_t OC_GetStorageIDs = 0x1004;
constexpr uint16_t OC_GetObjectHandles = 0x1007;
constexpr uint16_t OC_GetObjectInfo = 0x1008;
constexpr uint16_t OC_GetObject = 0x1009;
constexpr uint16_t OC_DeleteObject = 0x100B;
constexpr uint16_t OC_Vendor = 0x9999;

// Sub-commands of the vendor operation (its first parameter).
constexpr uint32_t BASEMOD_ReadMem = 0x01;
constexpr uint32_t BASEMOD_VideoConfig = 0x0B;
constexpr uint32_t QKM_GetPropCase = 0x81;
constexpr uint32_t QKM_SetPropCase = 0x82;
constexpr uint32_t QKM_GetZoom = 0x83;
constexpr uint32_t QKM_SetZoom = 0x84;
constexpr uint32_t QKM_EnableLCD = 0x8E;
constexpr uint32_t QKM_EnableKbd = 0x90;
constexpr uint32_t QKM_GetQKmVersion = 0x91;
constexpr uint32_t QKM_Shoot = 0x93;
constexpr uint32_t QKM_UpdateAEAF = 0x94;
constexpr uint32_t QKM_GetEvents = 0x95;
constexpr uint32_t QKM_GetMode = 0x96;
constexpr uint32_t QKM_GetCamLog = 0x99;
constexpr uint32_t QKM_MfOn = 0x9A;
constexpr uint32_t QKM_MfOff = 0x9B;
constexpr uint32_t QKM_MoveFocusTo = 0x9C;
constexpr uint32_t QKM_GetFocusParams = 0x9D;
constexpr uint32_t QKM_GetVBat = 0x9E;
constexpr uint32_t QKM_SetCaptureMode = 0xA0;
constexpr uint32_t QKM_GetSerialNumber = 0xA1;
constexpr uint32_t QKM_Reset = 0xA2;
constexpr uint32_t QKM_RemoteCaptureStart = 0xA3;
constexpr uint32_t QKM_RemoteCaptureIsReady = 0xA4;
constexpr uint32_t QKM_RemoteCaptureGetData = 0xA5;
constexpr uint32_t QKM_StartVideo = 0xA6;
constexpr uint32_t QKM_StopVideo = 0xA7;
constexpr uint32_t QKM_PowerDown = 0xA8;
constexpr uint32_t QKM_GetCamProperty = 0xA9;

// Bits of the event word.
constexpr uint32_t EVENT_SHOOT_FINISHED = 0x02;
constexpr uint32_t EVENT_ZOOM_FINISHED = 0x08;

constexpr uint16_t RC_OK = 0x2001;
constexpr uint16_t RC_GeneralError = 0x2002;
constexpr uint16_t RC_OperationNotSupported = 0x2005;
constexpr uint16_t RC_InvalidParameter = 0x201D;

} // namespace ptp

uint16_t GetLe16(const uint8_t* p);
uint32_t GetLe32(const uint8_t* p);
void PutLe16(std::vector<uint8_t>& out, uint16_t value);
void PutLe32(std::vector<uint8_t>& out, uint32_t value);

// A whole container: the header, then `payload`.
std::vector<uint8_t> MakeContainer(uint16_t type, uint16_t code, uint32_t transId,
                                   const std::vector<uint8_t>& payload);
// A header announcing `length` bytes in all, whatever follows it: for replies
// of a broken camera. Zeros after it make it `bytes` long, if that is more.
std::vector<uint8_t> MakeRawHeader(uint32_t length, uint16_t type, uint16_t code, uint32_t transId,
                                   size_t bytes = 12);
// A response (or command) container carrying 32-bit parameters.
std::vector<uint8_t> MakeParamContainer(uint16_t type, uint16_t code, uint32_t transId,
                                        const std::vector<uint32_t>& params);

} // namespace qksim
