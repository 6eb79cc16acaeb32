#include "device/device_objects.h"

#include <algorithm>

DeviceObject const g_deviceObjects[eDO_COUNT] = {
    {"UI-ADD-OPTION", 5, {1, 2, 2, 1, 37}, eLD_TEXT, true, 1, kMaxOptionText},
    {"UI-SELECT-OPTION", 5, {1, 2, 2, 1, 38}, eLD_TEXT, false, 0, kMaxOptionText},
    {"UI-DELETE-OPTION", 5, {1, 2, 2, 1, 42}, eLD_TEXT, true, 1, kMaxOptionText},
    {"NOT-READY-SOURCE-SCANNER", 5, {1, 2, 2, 2, 1}, eLD_BITS, false, 4, 4},
    {"SCANNER_BUTTON_STATUS", 5, {1, 2, 2, 2, 7}, eLD_WORD, true, 4, 4},
    {"SCAN_TOKEN", 4, {1, 1, 1, 25}, eLD_BINARY, true, kTokenSize, kTokenSize},
    {"SERIAL-NUMBER", 4, {1, 1, 3, 3}, eLD_TEXT, false, 1, 32},
    {"FAX-UPLOAD", 5, {1, 3, 7, 2, 1}, eLD_WORD, true, 4, 4},
};

int FindDeviceObject(LinkBytes const &oid)
{
    for (int nRow = 0; nRow < eDO_COUNT; ++nRow) {
        DeviceObject const &object = g_deviceObjects[nRow];
        if (std::equal(oid.begin(), oid.end(), object.oid, object.oid + object.cbOid)) {
            return nRow;
        }
    }
    return -1;
}

DWORD CheckDeviceValue(int nRow, BYTE dataType, std::size_t cb)
{
    DeviceObject const &object = g_deviceObjects[nRow];
    if (dataType != object.dataType) {
        return eLR_WRONG_TYPE;
    }
    if (!object.fSettable) {
        return eLR_REFUSED;
    }
    return cb < object.cbMin || cb > object.cbMax ? DWORD{eLR_WRONG_LENGTH} : DWORD{eLR_OK};
}

LinkBytes WordValue(DWORD dwValue)
{
    CLinkWriter writer;
    return writer.Word32(dwValue).Take();
}
