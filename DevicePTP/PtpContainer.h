#pragma once
// The USB bulk container of PTP. Fields are little-endian on the wire and
// the struct is read and written as it lies in memory.

#include <cstdint>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "containers are little-endian");

enum PtpContainerType : uint16_t {
    CONTAINER_COMMAND = 1,
    CONTAINER_DATA = 2,
    CONTAINER_RESPONSE = 3,
};

enum TRANSACTION_TYPE {
    TRANSACTION_GETDATA = 1, // a data phase from camera to host precedes the response
    TRANSACTION_NODATA = 2,
};

#pragma pack(push, 1)
struct _PTPUSBBulkContainer {
    uint32_t length;  // whole container, header included
    uint16_t type;
    uint16_t code;
    uint32_t transId;
    unsigned char payload[500];
};
#pragma pack(pop)

constexpr unsigned int ptpHeaderSize = 12;
constexpr unsigned int ptpContainerSize = sizeof(_PTPUSBBulkContainer);
static_assert(ptpContainerSize == 512, "a container read whole fills one packet");
