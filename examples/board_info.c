/* board_info: finds the adapters, opens the first one and prints its firmware version.
 *
 * Build against libCorvel_Driver and run it with an adapter plugged in, or on the virtual adapter:
 *     corvel-sim build/bin/board_info
 */
#include <stdint.h>
#include <stdio.h>

#include "CorvelBoard.h"

/* Prints what failed, in the library's own words. */
static int report(const char* what, int32_t code) {
    char text[32];
    KDI_GetErrorString(code, text);
    fprintf(stderr, "board_info: %s: %s (%d)\n", what, text, (int)code);
    return 1;
}

int main(void) {
    const int32_t dev = 0;
    uint8_t answer[8] = {0};
    int32_t count;
    int32_t rc;
    int status = 0;

    count = KD_EnumBoard(1); /* 1: read the USB buses now */
    printf("adapters found: %d\n", (int)count);
    if (count == 0) return 1;

    rc = KD_OpenBoard(dev);
    if (rc != KD_SUCCESS) return report("open adapter 0", rc);

    /* The version command answers 8 bytes: the command echoed, then the four version numbers. */
    rc = KD_ExecuteCommand(KD_CMD_GET_CORVEL_VN, 0, dev, answer);
    if (rc == 0) {
        printf("firmware version: %u.%u.%u.%u\n", answer[4], answer[5], answer[6], answer[7]);
    } else {
        fprintf(stderr, "board_info: no answer to the version command (result %d)\n", (int)rc);
        status = 1;
    }

    rc = KD_CloseBoard(dev);
    if (rc != KD_SUCCESS) status = report("close adapter 0", rc);
    return status;
}
