// SPDX-License-Identifier: MIT
#pragma once
// Operation and response codes of the camera link.

// Standard operations.
constexpr unsigned short PTP_OC_OpenSession = 0x1002;
constexpr unsigned short PTP_OC_GetStorageIDs = 0x1004;
constexpr unsigned short PTP_OC_GetObjectHandles = 0x1007;
constexpr unsigned short PTP_OC_GetObjectInfo = 0x1008;
constexpr unsigned short PTP_OC_GetObject = 0x1009;
constexpr unsigned short PTP_OC_DeleteObject = 0x100B;

// The vendor operation; its first parameter selects a sub-command.
constexpr unsigned short PTP_OC_QKM = 0x9999;

constexpr unsigned int PTP_BASEMOD_ReadMem = 0x01;
constexpr unsigned int PTP_BASEMOD_VideoConfig = 0x0B;
constexpr unsigned int PTP_QKM_GetPropCase = 0x81;
constexpr unsigned int PTP_QKM_SetPropCase = 0x82;
constexpr unsigned int PTP_QKM_GetZoom = 0x83;
constexpr unsigned int PTP_QKM_SetZoom = 0x84;
constexpr unsigned int PTP_QKM_EnableLCD = 0x8E;
constexpr unsigned int PTP_QKM_EnableKbd = 0x90;
constexpr unsigned int PTP_QKM_GetQKmVersion = 0x91;
constexpr unsigned int PTP_QKM_Shoot = 0x93;
constexpr unsigned int PTP_QKM_UpdateAEAF = 0x94;
constexpr unsigned int PTP_QKM_GetEvents = 0x95;
constexpr unsigned int PTP_QKM_GetMode = 0x96;
constexpr unsigned int PTP_QKM_GetCamLog = 0x99;
constexpr unsigned int PTP_QKM_MfOn = 0x9A;
constexpr unsigned int PTP_QKM_MfOff = 0x9B;
constexpr unsigned int PTP_QKM_MoveFocusTo = 0x9C;
constexpr unsigned int PTP_QKM_GetFocusParams = 0x9D;
constexpr unsigned int PTP_QKM_GetVBat = 0x9E;
constexpr unsigned int PTP_QKM_SetCaptureMode = 0xA0;
constexpr unsigned int PTP_QKM_GetSerialNumber = 0xA1;
constexpr unsigned int PTP_QKM_Reset = 0xA2;
constexpr unsigned int PTP_QKM_RemoteCaptureStart = 0xA3;
constexpr unsigned int PTP_QKM_RemoteCaptureIsReady = 0xA4;
constexpr unsigned int PTP_QKM_RemoteCaptureGetData = 0xA5;
constexpr unsigned int PTP_QKM_StartVideo = 0xA6;
constexpr unsigned int PTP_QKM_StopVideo = 0xA7;
constexpr unsigned int PTP_QKM_PowerDown = 0xA8;
constexpr unsigned int PTP_QKM_GetCamProperty = 0xA9;

// Response codes that a transaction treats apart.
constexpr unsigned short PTP_RC_OK = 0x2001;
constexpr unsigned short PTP_RC_GeneralError = 0x2002;
