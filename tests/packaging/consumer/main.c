/* A client built against the installed library only. */
#include <ZOR_focuser.h>

#include <stdio.h>
#include <string.h>

int main(void)
{
    int pid = 0;
    if (ZORGetProductIDs(NULL) != 1 || ZORGetProductIDs(&pid) != 1 || pid != ZOR_PRODUCT_ID)
        return 1;
    if (!ZORCheck(ZOR_VENDOR_ID, ZOR_PRODUCT_ID))
        return 2;
    printf("%s\n", ZORGetSDKVersion());
    return strcmp(ZORGetSDKVersion(), ZOR_SDK_VERSION) == 0 ? 0 : 3;
}
