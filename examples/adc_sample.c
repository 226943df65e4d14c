/* adc_sample: samples ADC channels 0 and 2 of an I2C-type adapter 16 times, 1 ms apart, and prints
 * the volts.
 *
 *     adc_sample [-d INDEX]
 *
 * One line per instant: "k  ch0 V  ch2 V". The adapter's values are 12-bit counts of a 3.3 V
 * reference, each sent least significant byte first; they are put together byte by byte so that
 * the program does not depend on the host's byte order. On the virtual adapter ch0 holds 1.65 V
 * and ch2 a 50 Hz sine:
 *     corvel-sim build/bin/adc_sample
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ControlADC.h"

#define DEV_TYPE KD_DEVTYPE_I2C
#define CHANNELS 0x05u /* channels 0 and 2 */
#define PERIOD_US 1000
#define INSTANTS 16
#define VREF 3.3
#define FULL_SCALE 4095.0

/* Prints what failed, in the library's own words. */
static int report(const char* what, int32_t code) {
    char text[64];
    KDI_GetErrorString(code, text);
    fprintf(stderr, "adc_sample: %s: %s (%d)\n", what, text, (int)code);
    return 1;
}

static unsigned value_at(const uint16_t* block, unsigned index) {
    const uint8_t* bytes = (const uint8_t*)block;
    return (unsigned)bytes[2 * index] | ((unsigned)bytes[2 * index + 1] << 8);
}

int main(int argc, char** argv) {
    int32_t dev = 0;
    int32_t rc;
    uint16_t block[INSTANTS * 2];
    unsigned k;

    if (argc == 3 && strcmp(argv[1], "-d") == 0) {
        dev = atoi(argv[2]);
    } else if (argc != 1) {
        fprintf(stderr, "usage: adc_sample [-d INDEX]\n");
        return 2;
    }
    if (KAI_ScanDevice(1) <= 0) {
        fprintf(stderr, "adc_sample: no adapter found\n");
        return 1;
    }
    rc = KAI_OpenDevice(DEV_TYPE, dev, 0);
    if (rc != 0) {
        return report("open adapter", rc);
    }
    rc = KAI_InitADC(DEV_TYPE, dev, CHANNELS, PERIOD_US);
    if (rc == 0) rc = KAI_ReadDatas(DEV_TYPE, dev, INSTANTS, block);
    if (rc == 0) {
        for (k = 0; k < INSTANTS; ++k) {
            printf("%2u  ch0 %.3f V  ch2 %.3f V\n", k, value_at(block, 2 * k) * VREF / FULL_SCALE,
                   value_at(block, 2 * k + 1) * VREF / FULL_SCALE);
        }
    } else {
        report("sampling", rc);
    }
    KAI_CloseDevice(DEV_TYPE, dev);
    return rc == 0 ? 0 : 1;
}
