#pragma once
// The device's objects: what can be addressed, with which type, and what clients may write.
#include "devlink/link_frame.h"
#include "devlink/link_protocol.h"

enum DeviceRow : int {
    eDO_UI_ADD_OPTION,
    eDO_UI_SELECT_OPTION,
    eDO_UI_DELETE_OPTION,
    eDO_NOT_READY_SOURCE_SCANNER,
    eDO_SCANNER_BUTTON_STATUS,
    eDO_SCAN_TOKEN,
    eDO_SERIAL_NUMBER,
    eDO_FAX_UPLOAD,
    eDO_COUNT
};

struct DeviceObject {
    char const *pszName;
    BYTE cbOid;
    BYTE oid[kLinkMaxOid];
    BYTE dataType;
    bool fSettable; // by a client
    DWORD cbMin;    // of a value, in bytes
    DWORD cbMax;
};

constexpr DWORD kButtonOff = 1;
constexpr DWORD kButtonPressed = 2;
constexpr DWORD kFeederBit = 0x10;
constexpr DWORD kFaxWaiting = 6;
constexpr DWORD kTokenSize = 16;
// A client takes no longer text, as a trap or as a datagram.
constexpr DWORD kMaxOptionText = 349;

extern DeviceObject const g_deviceObjects[eDO_COUNT];

// The row, or -1.
int FindDeviceObject(LinkBytes const &oid);
// eLR_OK if a value of that type and length may be written there.
DWORD CheckDeviceValue(int nRow, BYTE dataType, size_t cb);
// A word as it goes over the wire.
LinkBytes WordValue(DWORD dwValue);
