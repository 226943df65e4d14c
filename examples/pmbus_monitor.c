/* pmbus_monitor: reads the output voltage, current and temperature of both pages (outputs) of the
 * PMBus supply at 0x40 on I2C channel 1 of an I2C-type adapter, three times a second apart.
 *
 *     pmbus_monitor [-d INDEX]
 *
 * One line per page and round: "0x40 page 0:  12.000 V   2.500 A  35.0 C". The voltage is
 * READ_VOUT in LINEAR16 with the exponent of VOUT_MODE; current and temperature are LINEAR11.
 * SMBus words come low byte first; the library stores the two bytes as they came, so they are put
 * together byte by byte here and the program does not depend on the host's byte order. On the
 * virtual adapter:
 *     corvel-sim build/bin/pmbus_monitor
 */
#define _XOPEN_SOURCE 500 /* sleep */

#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ControlPMBus.h"

#define DEV_TYPE KD_DEVTYPE_I2C
#define CHANNEL 1
#define SUPPLY 0x40 /* 7-bit; the library takes it shifted left by one */
#define CLOCK_HZ 100000u
#define ROUNDS 3

#define PAGE 0x00
#define VOUT_MODE 0x20
#define READ_VOUT 0x8B
#define READ_IOUT 0x8C
#define READ_TEMPERATURE_1 0x8D

/* Prints what failed: the library's text for a negative code, the adapter's status otherwise. */
static int report(const char* what, int32_t code) {
    char text[64];
    if (code < 0) {
        KDI_GetErrorString(code, text);
        fprintf(stderr, "pmbus_monitor: %s: %s (%d)\n", what, text, (int)code);
    } else {
        fprintf(stderr, "pmbus_monitor: %s: adapter status %d\n", what, (int)code);
    }
    return 1;
}

static unsigned word_value(uint16_t stored) {
    const uint8_t* bytes = (const uint8_t*)&stored;
    return (unsigned)bytes[0] | ((unsigned)bytes[1] << 8);
}

/* A 5-bit two's-complement exponent. */
static int exponent5(unsigned bits) {
    bits &= 0x1Fu;
    return bits >= 0x10u ? (int)bits - 32 : (int)bits;
}

/* LINEAR11: exponent in bits 15-11, 11-bit two's-complement mantissa in bits 10-0. */
static double linear11(unsigned word) {
    int mantissa = (int)(word & 0x7FFu);
    if (mantissa >= 0x400) mantissa -= 0x800;
    return ldexp(mantissa, exponent5(word >> 11));
}

static int32_t read_word(int32_t dev, uint8_t command, unsigned* value) {
    uint16_t stored = 0;
    int32_t rc = PMBus_ReadWord(DEV_TYPE, dev, CHANNEL, SUPPLY << 1, command, &stored, 0);
    *value = word_value(stored);
    return rc;
}

static int32_t read_page(int32_t dev, uint8_t page) {
    uint8_t mode = 0;
    unsigned vout, iout, temp;
    int32_t rc = PMBus_WriteByte(DEV_TYPE, dev, CHANNEL, SUPPLY << 1, PAGE, page, 0);
    if (rc != 0) return report("select the page", rc);
    rc = PMBus_ReadByte(DEV_TYPE, dev, CHANNEL, SUPPLY << 1, VOUT_MODE, &mode, 0);
    if (rc != 0) return report("read VOUT_MODE", rc);
    if ((mode & 0xE0u) != 0) {
        fprintf(stderr, "pmbus_monitor: VOUT_MODE 0x%02x is not LINEAR16\n", mode);
        return 1;
    }
    if ((rc = read_word(dev, READ_VOUT, &vout)) != 0) return report("read READ_VOUT", rc);
    if ((rc = read_word(dev, READ_IOUT, &iout)) != 0) return report("read READ_IOUT", rc);
    if ((rc = read_word(dev, READ_TEMPERATURE_1, &temp)) != 0) return report("read READ_TEMPERATURE_1", rc);
    printf("0x%02x page %u: %7.3f V %7.3f A %5.1f C\n", SUPPLY, (unsigned)page, ldexp(vout, exponent5(mode)),
           linear11(iout), linear11(temp));
    return 0;
}

int main(int argc, char** argv) {
    int32_t dev = 0;
    int32_t rc;
    int round, failed = 0;

    if (argc == 3 && strcmp(argv[1], "-d") == 0) {
        dev = atoi(argv[2]);
    } else if (argc != 1) {
        fprintf(stderr, "usage: pmbus_monitor [-d INDEX]\n");
        return 2;
    }
    if (PMBus_ScanDevice(1) <= 0) {
        fprintf(stderr, "pmbus_monitor: no adapter found\n");
        return 1;
    }
    rc = PMBus_OpenDevice(DEV_TYPE, dev, 0);
    if (rc != 0) return report("open adapter", rc);
    rc = PMBus_HardInit(DEV_TYPE, dev, CHANNEL, CLOCK_HZ, 0);
    if (rc != 0) {
        failed = report("set up the bus", rc);
    }
    for (round = 0; round < ROUNDS && !failed; ++round) {
        if (round > 0) sleep(1);
        failed = read_page(dev, 0) || read_page(dev, 1);
    }
    PMBus_CloseDevice(DEV_TYPE, dev);
    return failed ? 1 : 0;
}
