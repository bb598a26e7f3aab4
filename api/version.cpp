#include "ZOR_focuser.h"

const char *get_ZOR_SDK_Ver() { return ZOR_SDK_VERSION; }

extern "C" {

const char *ZORGetSDKVersion(void) { return get_ZOR_SDK_Ver(); }

int ZORGetProductIDs(int *pPIDs)
{
    if (pPIDs)
        pPIDs[0] = ZOR_PRODUCT_ID;
    return 1;
}

int ZORCheck(int iVID, int iPID) { return iVID == ZOR_VENDOR_ID && iPID == ZOR_PRODUCT_ID ? 1 : 0; }

} // extern "C"
