// The few members of a device object that tests set or read directly.
#pragma once

#include "device/zor.h"

class CZORTestAccess {
public:
    static void openIdentity(CZOR &d)
    {
        d.m_bFwNew = true;
        d.m_bHasModelString = true;
    }
    static void setBleConnected(CZOR &d) { d.m_bBleConnected = true; }
    static void setRawTempAdc(CZOR &d, bool raw) { d.m_bRawTempAdc = raw; }
    static bool ledOn(CZOR &d) { return d.m_bLedOn; }
};
