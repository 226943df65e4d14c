/* gpio_blink: toggles pin 0 of an I2C-type adapter a few times and reads pin 8 back each time.
 * Pin 0 must be wired to pin 8 (on the virtual adapter pins n and n+8 are).
 *
 *     gpio_blink [-d INDEX]
 *
 * Prints one line per step, "pin 0 = L, pin 8 = L", and exits with status 0 when pin 8 followed
 * pin 0 every time. Run it with an adapter plugged in, or on the virtual adapter:
 *     corvel-sim build/bin/gpio_blink
 */
#define _XOPEN_SOURCE 500 /* usleep */

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ControlGPIO.h"

#define DEV_TYPE KD_DEVTYPE_I2C
#define STEPS 6
#define PIN_OUT 0x0001u /* pin 0 */
#define PIN_IN 0x0100u  /* pin 8 */

/* Prints what failed, in the library's own words. */
static int report(const char* what, int32_t code) {
    char text[64];
    KDI_GetErrorString(code, text);
    fprintf(stderr, "gpio_blink: %s: %s (%d)\n", what, text, (int)code);
    return 1;
}

int main(int argc, char** argv) {
    int32_t dev = 0;
    int32_t rc;
    int step, mismatches = 0;

    if (argc == 3 && strcmp(argv[1], "-d") == 0) {
        dev = atoi(argv[2]);
    } else if (argc != 1) {
        fprintf(stderr, "usage: gpio_blink [-d INDEX]\n");
        return 2;
    }
    if (KGI_ScanDevice(1) <= 0) {
        fprintf(stderr, "gpio_blink: no adapter found\n");
        return 1;
    }
    rc = KGI_OpenDevice(DEV_TYPE, dev, 0);
    if (rc != 0) {
        return report("open adapter", rc);
    }
    rc = KGI_SetOutput(DEV_TYPE, dev, PIN_OUT);
    if (rc == 0) rc = KGI_SetInput(DEV_TYPE, dev, PIN_IN);
    for (step = 0; rc == 0 && step < STEPS; ++step) {
        int level = step % 2 == 0;
        uint16_t levels = 0;
        rc = level ? KGI_SetPins(DEV_TYPE, dev, PIN_OUT) : KGI_ResetPins(DEV_TYPE, dev, PIN_OUT);
        if (rc != 0) break;
        usleep(100000);
        rc = KGI_ReadDatas(DEV_TYPE, dev, PIN_IN, &levels);
        if (rc != 0) break;
        printf("pin 0 = %d, pin 8 = %d\n", level, (levels & PIN_IN) != 0);
        if (((levels & PIN_IN) != 0) != level) ++mismatches;
    }
    if (rc != 0) report("pin access", rc);
    KGI_CloseDevice(DEV_TYPE, dev);
    if (rc != 0) return 1;
    if (mismatches != 0) {
        fprintf(stderr, "gpio_blink: pin 8 did not follow pin 0 %d times\n", mismatches);
        return 1;
    }
    return 0;
}
