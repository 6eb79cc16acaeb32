#include "agent/dol_objects.h"

#include "dolrtl/QOMADolC.h"

DolObjectType g_DolObjects[eDO_COUNT] = {
    {5, {1, 2, 2, 1, 37}, 1, "UI-ADD-OPTION", 4},
    {5, {1, 2, 2, 1, 38}, 1, "UI-SELECT-OPTION", 4},
    {5, {1, 2, 2, 1, 42}, 1, "UI-DELETE-OPTION", 4},
    {5, {1, 2, 2, 2, 1}, 1, "NOT-READY-SOURCE-SCANNER", 8},
    {5, {1, 2, 2, 2, 7}, 1, "SCANNER_BUTTON_STATUS", 1},
    {4, {1, 1, 1, 25}, 1, "SCAN_TOKEN", 5},
    {4, {1, 1, 3, 3}, 1, "SERIAL-NUMBER", 4},
    {5, {1, 3, 7, 2, 1}, 1, "FAX-UPLOAD", 1},
};

void CompleteDolObjects()
{
    for (DolObjectType &object : g_DolObjects) {
        object.length = object.oidLength;
    }
}

DWORD SetDolObject(CDolRtl &link, DWORD dwRow, void const *pValue, DWORD cbValue)
{
    DolObjectType &object = g_DolObjects[dwRow];
    return link.Set(object.oid, object.length, object.dataType, const_cast<void *>(pValue),
                    cbValue);
}

DWORD TrapDolObject(CDolRtl &link, DWORD dwRow)
{
    DolObjectType &object = g_DolObjects[dwRow];
    return link.Trap(object.oid, object.length, object.dataType, static_cast<WORD>(dwRow));
}

DWORD UnTrapDolObject(CDolRtl &link, DWORD dwRow)
{
    DolObjectType &object = g_DolObjects[dwRow];
    return link.UnTrap(object.oid, object.length);
}

DWORD SetScannerButtonOff(CDolRtl &link)
{
    DWORD const dwOff = 1;
    return SetDolObject(link, eDO_SCANNER_BUTTON_STATUS, &dwOff, sizeof dwOff);
}
