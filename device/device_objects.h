#pragma once
/// @file
/// The device's objects: what can be addressed, with which type, and what clients may write.
#include "devlink/link_frame.h"
#include "devlink/link_protocol.h"

/// The rows of g_deviceObjects.
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

/// One object.
struct DeviceObject {
    char const *pszName;   ///< for the log
    BYTE cbOid;            ///< bytes used in oid
    BYTE oid[kLinkMaxOid]; ///< the identifier, a byte for each of its numbers
    BYTE dataType;         ///< a LinkDataType
    bool fSettable;        ///< by a client
    DWORD cbMin;           ///< the shortest value, in bytes
    DWORD cbMax;           ///< the longest value, in bytes
};

constexpr DWORD kButtonOff = 1;     ///< SCANNER_BUTTON_STATUS at rest
constexpr DWORD kButtonPressed = 2; ///< and when it was pressed
constexpr DWORD kFeederBit = 0x10;  ///< of NOT-READY-SOURCE-SCANNER
constexpr DWORD kFaxWaiting = 6;    ///< FAX-UPLOAD when a fax waits
constexpr DWORD kTokenSize = 16;    ///< bytes of SCAN_TOKEN
/// A client takes no longer text, as a trap or as a datagram.
constexpr DWORD kMaxOptionText = 349;

/// One row for each object.
extern DeviceObject const g_deviceObjects[eDO_COUNT];

/// The row, or -1.
int FindDeviceObject(LinkBytes const &oid);
/// eLR_OK if a value of that type and length may be written there.
DWORD CheckDeviceValue(int nRow, BYTE dataType, std::size_t cb);
/// A word as it goes over the wire.
LinkBytes WordValue(DWORD dwValue);
