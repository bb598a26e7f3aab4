/* Lists the HID devices hidapi finds and asks each for its firmware version
 * (feature report 03 7E 5A 02 04, reply in feature report 01). Uses nothing
 * but hidapi. */
#include <hidapi.h>
#include <stdio.h>
#include <string.h>

int main(void)
{
    if (hid_init() != 0) {
        printf("hid_init failed: %ls\n", hid_error(NULL));
        return 1;
    }
    struct hid_device_info *list = hid_enumerate(0, 0);
    int count = 0;
    for (struct hid_device_info *i = list; i; i = i->next)
        ++count;
    printf("%d focuser%s\n", count, count == 1 ? "" : "s");

    int status = 0;
    for (struct hid_device_info *i = list; i; i = i->next) {
        hid_device *dev = hid_open_path(i->path);
        if (!dev) {
            printf("%s: open failed: %ls\n", i->path, hid_error(NULL));
            status = 1;
            continue;
        }
        unsigned char request[16] = {0x03, 0x7E, 0x5A, 0x02, 0x04};
        unsigned char reply[17] = {0x01};
        if (hid_send_feature_report(dev, request, sizeof request) != (int)sizeof request ||
            hid_get_feature_report(dev, reply, sizeof reply) != (int)sizeof reply) {
            printf("%s: %ls\n", i->path, hid_error(dev));
            status = 1;
        } else {
            char model[10] = "";
            if (reply[7] == 'E')
                memcpy(model, reply + 8, sizeof model - 1);
            printf("%s %ls firmware %d.%d.%d \"%s\"\n", i->path, i->product_string, reply[4], reply[5],
                   reply[6], model);
        }
        hid_close(dev);
    }
    hid_free_enumeration(list);
    hid_exit();
    return status;
}
