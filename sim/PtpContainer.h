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
constexpr uint16_t OC_Vendor = 0x9999;

constexpr uint32_t QKM_GetSerialNumber = 0xA1;

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
// A response (or command) container carrying 32-bit parameters.
std::vector<uint8_t> MakeParamContainer(uint16_t type, uint16_t code, uint32_t transId,
                                        const std::vector<uint32_t>& params);

} // namespace qksim
