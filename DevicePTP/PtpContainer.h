// SPDX-License-Identifier: MIT
#pragma once
/// @file
/// The USB bulk container of PTP. Fields are little-endian on the wire and
/// the struct is read and written as it lies in memory.

#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "containers are little-endian");

/// What a container carries.
enum PtpContainerType : uint16_t {
    CONTAINER_COMMAND = 1,  ///< an operation, host to camera
    CONTAINER_DATA = 2,     ///< a data phase
    CONTAINER_RESPONSE = 3, ///< the answer that ends a transaction
};

/// Whether a transaction has a data phase.
enum TRANSACTION_TYPE {
    TRANSACTION_GETDATA = 1, ///< a data phase from camera to host precedes the response
    TRANSACTION_NODATA = 2,  ///< the response follows the command directly
};

#pragma pack(push, 1)
/// One container as it lies on the wire; a whole one fills one 512-byte packet.
struct _PTPUSBBulkContainer {
    uint32_t length;             ///< whole container, header included
    uint16_t type;               ///< a PtpContainerType
    uint16_t code;               ///< operation or response code
    uint32_t transId;            ///< the transaction it belongs to
    unsigned char payload[500];  ///< parameters or data
};
#pragma pack(pop)

/// Bytes before the payload.
constexpr unsigned int ptpHeaderSize = 12;
/// Bytes of a whole container.
constexpr unsigned int ptpContainerSize = sizeof(_PTPUSBBulkContainer);
static_assert(ptpContainerSize == 512, "a container read whole fills one packet");
