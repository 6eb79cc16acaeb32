#pragma once
/// @file
/// The device objects that the agent knows, and access to them by row. The row number of an object is
/// also the trap id under which it is registered, and by which the trap reader tells traps apart.
#include <atomic>

#include "platform/base.h"

class CDolRtl;

/// The rows of g_DolObjects, and so the trap ids.
enum DolRowType : DWORD {
    eDO_UI_ADD_OPTION = 0,
    eDO_UI_SELECT_OPTION = 1,
    eDO_UI_DELETE_OPTION = 2,
    eDO_NOT_READY_SOURCE_SCANNER = 3,
    eDO_SCANNER_BUTTON_STATUS = 4,
    eDO_SCAN_TOKEN = 5,
    eDO_SERIAL_NUMBER = 6,
    eDO_FAX_UPLOAD = 7,
    eDO_COUNT
};

/// A device object as CDolRtl is told of it.
struct DolObjectType {
    unsigned char oidLength;   ///< bytes used in oid
    unsigned char oid[14];     ///< the identifier, a byte for each of its numbers
    std::atomic<DWORD> length; ///< what CDolRtl is given; every agent's constructor sets it
    char const *name;          ///< as the device knows it
    unsigned char dataType;    ///< 1 word, 4 text, 5 binary, 8 a word of bits
};

/// One table for all agents. Constant but for `length`, which always gets the same value.
extern DolObjectType g_DolObjects[eDO_COUNT];

/// Sets every row's length from its oidLength. Any thread.
void CompleteDolObjects();

/// @{
/// CDolRtl's operations on the object of a row; its codes come back unchanged. No lock needed.
DWORD SetDolObject(CDolRtl &link, DWORD dwRow, void const *pValue, DWORD cbValue);
DWORD TrapDolObject(CDolRtl &link, DWORD dwRow);
DWORD UnTrapDolObject(CDolRtl &link, DWORD dwRow);
/// @}

/// Writes the word 1 to SCANNER_BUTTON_STATUS: the press has been dealt with.
DWORD SetScannerButtonOff(CDolRtl &link);
