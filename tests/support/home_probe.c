/* Enumerates, opens, describes and closes every virtual focuser (ZOR_SIM),
 * printing nothing itself. The library's getpwuid_r is the one below: it
 * reports ZOR_TEST_PASSWD_HOME as the user's home, or no entry without it. */
#define _GNU_SOURCE /* RTLD_DEFAULT */
#include "ZOR_focuser.h"

#include <dlfcn.h>
#include <errno.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int getpwuid_r(uid_t uid, struct passwd *pwd, char *buf, size_t buflen, struct passwd **result)
{
    const char *home = getenv("ZOR_TEST_PASSWD_HOME");
    *result = NULL;
    if (!home)
        return 0;
    if (strlen(home) + 1 > buflen)
        return ERANGE;
    strcpy(buf, home);
    memset(pwd, 0, sizeof *pwd);
    pwd->pw_dir = buf;
    *result = pwd;
    return 0;
}

int main(void)
{
    /* Without the replacement in force the library would reach the real
     * user's home: stop before anything is touched. */
    if (dlsym(RTLD_DEFAULT, "getpwuid_r") != (void *)getpwuid_r) {
        fputs("home_probe: the library does not see this program's getpwuid_r\n", stderr);
        return 2;
    }
    const int count = ZORGetNum();
    int failures = count > 0 ? 0 : 1;
    for (int index = 0; index < count; ++index) {
        int id = -1;
        ZOR_INFO info;
        failures += ZORGetID(index, &id) != ZOR_SUCCESS;
        failures += ZOROpen(id) != ZOR_SUCCESS;
        failures += ZORGetProperty(id, &info) != ZOR_SUCCESS;
        failures += ZORClose(id) != ZOR_SUCCESS;
    }
    return failures == 0 ? 0 : 1;
}
