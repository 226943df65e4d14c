/* i2c_eeprom: writes one page of a 24C02-type EEPROM on channel 0 of the first I2C adapter, reads it
 * back and compares.
 *
 * Build against libCorvel_Driver and run it with an adapter plugged in, or on the virtual adapter
 * (whose channel 0 has such an EEPROM at 7-bit address 0x50):
 *     corvel-sim build/bin/i2c_eeprom
 */
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "ControlI2C.h"

#define DEV_TYPE KD_DEVTYPE_I2C
#define DEV_INDEX 0
#define CHANNEL 0
/* The library takes addresses in the 8-bit form, the 7-bit address shifted left by one: 0xA0 is the
 * EEPROM at 0x50. */
#define EEPROM_ADDR 0xA0
#define PAGE_SIZE 8 /* a write must stay within one page: past its end it wraps to the page start */
#define PAGE_START 0x10
#define WRITE_CYCLE_POLLS 100

/* Prints what failed, in the library's own words. */
static int report(const char* what, int32_t code) {
    char text[32];
    KDI_GetErrorString(code, text);
    fprintf(stderr, "i2c_eeprom: %s: %s (%d)\n", what, text, (int)code);
    return 1;
}

/* While it stores a page the EEPROM does not acknowledge its address (a few milliseconds on real
 * parts). Acknowledge polling: send the address with no data until the part answers again. With a
 * one-byte sub-address this also sets the part's pointer, which the read below sets anew. */
static int32_t wait_for_write_cycle(void) {
    uint8_t nothing = 0;
    int32_t rc = KD_ERR_EXECUTE_CMD;
    int i;
    for (i = 0; i < WRITE_CYCLE_POLLS && rc == KD_ERR_EXECUTE_CMD; ++i) {
        rc = KII_WriteBytes(DEV_TYPE, DEV_INDEX, CHANNEL, EEPROM_ADDR, PAGE_START, &nothing, 0);
    }
    return rc;
}

/* Everything between open and close; returns the exit status. */
static int run(void) {
    KII_INIT_CONFIG config;
    uint8_t page[PAGE_SIZE] = {0xde, 0xad, 0xbe, 0xef, 0x43, 0x6f, 0x72, 0x76};
    uint8_t back[PAGE_SIZE];
    int32_t rc;
    int i;

    memset(&config, 0, sizeof config);
    config.MasterMode = 1;      /* the adapter drives the bus */
    config.AddrType = 7;        /* 7-bit part addresses */
    config.SubAddrWidth = 1;    /* one word-address byte, as a 24C02 takes */
    config.Addr = 0;            /* own address: used in slave mode only */
    config.ClockSpeed = 100000; /* 100 kHz */
    config.ControlMode = 0;
    rc = KII_InitI2C(DEV_TYPE, DEV_INDEX, CHANNEL, &config);
    if (rc != KD_SUCCESS) return report("set up channel 0", rc);

    rc = KII_WriteBytes(DEV_TYPE, DEV_INDEX, CHANNEL, EEPROM_ADDR, PAGE_START, page, PAGE_SIZE);
    if (rc != KD_SUCCESS) return report("write the page", rc);
    rc = wait_for_write_cycle();
    if (rc != KD_SUCCESS) return report("wait for the write cycle", rc);

    memset(back, 0, sizeof back);
    rc = KII_ReadBytes(DEV_TYPE, DEV_INDEX, CHANNEL, EEPROM_ADDR, PAGE_START, back, PAGE_SIZE);
    if (rc != KD_SUCCESS) return report("read the page back", rc);

    printf("read back at 0x%02x:", PAGE_START);
    for (i = 0; i < PAGE_SIZE; ++i) printf(" %02x", back[i]);
    printf("\n");
    if (memcmp(page, back, PAGE_SIZE) != 0) {
        fprintf(stderr, "i2c_eeprom: the bytes read back differ from the bytes written\n");
        return 1;
    }
    printf("page verified\n");
    return 0;
}

int main(void) {
    int32_t count;
    int32_t rc;
    int status;

    count = KII_ScanDevice(1); /* 1: read the USB buses now */
    printf("adapters found: %d\n", (int)count);
    if (count <= 0) return 1;

    rc = KII_OpenDevice(DEV_TYPE, DEV_INDEX, 0);
    if (rc != KD_SUCCESS) return report("open adapter 0", rc);

    status = run();

    rc = KII_CloseDevice(DEV_TYPE, DEV_INDEX);
    if (rc != KD_SUCCESS && status == 0) status = report("close adapter 0", rc);
    return status;
}
