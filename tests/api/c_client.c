/* The canonical sequence of a C client, through the exported functions
 * alone: count, IDs, open, move, poll until stopped, read every value,
 * close. The virtual focusers come from ZOR_SIM. */
#define _POSIX_C_SOURCE 199309L
#include "ZOR_focuser.h"

#include <stdio.h>
#include <string.h>
#include <time.h>

static int failures;

#define CHECK(cond)                                                                                          \
    do {                                                                                                     \
        if (!(cond)) {                                                                                       \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);                       \
            ++failures;                                                                                      \
        }                                                                                                    \
    } while (0)

static void pause_ms(long ms)
{
    struct timespec t = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&t, NULL);
}

static void drive(int id)
{
    CHECK(ZOROpen(id) == ZOR_SUCCESS);

    int target = 0;
    CHECK(ZORGetPosition(id, &target) == ZOR_SUCCESS);
    target += 300;
    CHECK(ZORMove(id, target) == ZOR_SUCCESS);
    bool moving = true, hand = false;
    for (int polls = 0; moving && polls < 200; ++polls) {
        CHECK(ZORIsMoving(id, &moving, &hand) == ZOR_SUCCESS);
        if (moving)
            pause_ms(20);
    }
    CHECK(!moving);
    int position = -1;
    CHECK(ZORGetPosition(id, &position) == ZOR_SUCCESS);
    CHECK(position == target);

    float temp = -1000;
    bool flag = true;
    unsigned char major = 0, minor = 0, build = 0;
    ZOR_SN sn;
    ZOR_TYPE type;
    int controls = 0;
    ZOR_CONTROL_CAPS caps;
    /* Values of the C types the header declares, and records filled by pointer. */
    CHECK(ZORGetTemp(id, &temp) == ZOR_SUCCESS && temp > -50 && temp < 100);
    CHECK(ZORSetReverse(id, true) == ZOR_SUCCESS);
    CHECK(ZORGetReverse(id, &flag) == ZOR_SUCCESS && flag);
    CHECK(ZORGetFirmwareVersion(id, &major, &minor, &build) == ZOR_SUCCESS && major * 100 + minor * 10 + build >= 370);
    CHECK(ZORGetSerialNumber(id, &sn) == ZOR_SUCCESS);
    CHECK(ZORGetType(id, &type) == ZOR_SUCCESS && strncmp(type.Type, "ZOR", 3) == 0);
    CHECK(ZORGetNumOfControls(id, &controls) == ZOR_SUCCESS && controls >= 5);
    CHECK(ZORGetControlCaps(id, 0, &caps) == ZOR_SUCCESS && caps.Name[0] != '\0');
    CHECK(ZORClose(id) == ZOR_SUCCESS);
    CHECK(ZORGetPosition(id, &position) == ZOR_ERROR_CLOSED);
}

int main(void)
{
    const int count = ZORGetNum();
    CHECK(count == 2);
    for (int index = 0; index < count; ++index) {
        int id = -1;
        CHECK(ZORGetID(index, &id) == ZOR_SUCCESS);
        ZOR_INFO info;
        CHECK(ZORGetProperty(id, &info) == ZOR_SUCCESS && strcmp(info.Name, "ZOR") == 0);
        drive(id);
    }
    if (failures == 0)
        printf("C client: %d focusers driven\n", count);
    return failures == 0 ? 0 : 1;
}
