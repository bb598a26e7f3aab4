/*
 * The usual sequence of a client of the ZOR focuser library: find the
 * focusers, open the first one, move it, wait until it stops, read where
 * it is, and close it.
 *
 *   move_focuser [STEP]      (default: 1000 steps out from where it is)
 */
#define _POSIX_C_SOURCE 199309L

#include <ZOR_focuser.h>

#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static void sleep_ms(long ms)
{
    struct timespec t = {ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&t, NULL);
}

/* Prints what went wrong; returns 1 for main to return. */
static int failed(const char *what, ZOR_ERROR_CODE code)
{
    fprintf(stderr, "%s failed with result %d\n", what, (int)code);
    return 1;
}

int main(int argc, char **argv)
{
    /* 1. Enumerate: IDs exist only after ZORGetNum. */
    int count = ZORGetNum();
    printf("%d focuser(s) found\n", count);
    if (count == 0)
        return 1;
    int id = -1;
    for (int index = 0; index < count; ++index) {
        int this_id = -1;
        if (ZORGetID(index, &this_id) != ZOR_SUCCESS)
            continue;
        ZOR_INFO info;
        if (ZORGetProperty(this_id, &info) == ZOR_SUCCESS)
            printf("  ID %d: %s, maximum step %d\n", this_id, info.Name, info.MaxStep);
        if (id < 0)
            id = this_id;
    }
    if (id < 0)
        return 1;

    /* 2. Open the first one. */
    ZOR_ERROR_CODE rc = ZOROpen(id);
    if (rc != ZOR_SUCCESS)
        return failed("ZOROpen", rc);

    int position = 0;
    rc = ZORGetPosition(id, &position);
    if (rc != ZOR_SUCCESS) {
        ZORClose(id);
        return failed("ZORGetPosition", rc);
    }
    int target = argc > 1 ? atoi(argv[1]) : position + 1000;

    /* 3. Move, and poll until the focuser reports that it has stopped. */
    printf("Moving focuser %d from %d to %d\n", id, position, target);
    rc = ZORMove(id, target);
    if (rc != ZOR_SUCCESS) {
        ZORClose(id);
        return failed("ZORMove", rc);
    }
    bool moving = true, hand = false;
    while (moving) {
        sleep_ms(100);
        rc = ZORIsMoving(id, &moving, &hand);
        if (rc != ZOR_SUCCESS) {
            ZORClose(id);
            return failed("ZORIsMoving", rc);
        }
    }

    /* 4. Read where it stopped, and close (the library saves its settings). */
    rc = ZORGetPosition(id, &position);
    ZORClose(id);
    if (rc != ZOR_SUCCESS)
        return failed("ZORGetPosition", rc);
    printf("Focuser %d stopped at %d.\n", id, position);
    return 0;
}
