/* spi_flash: erases a sector of a 25-series serial NOR flash on channel 0 of the first SPI adapter,
 * programs a page, reads it back and compares.
 *
 * Build against libCorvel_Driver and run it with an adapter plugged in, or on the virtual adapter
 * (whose SPI adapter has a 4 MiB flash on channel 0):
 *     corvel-sim build/bin/spi_flash
 *
 * The library prints "ReadLen: N" on standard output at every write-read (KSI_WriteReadBytes); those
 * lines appear between this program's own.
 */
#define _POSIX_C_SOURCE 200112L /* nanosleep */

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "ControlSPI.h"

#define DEV_TYPE KD_DEVTYPE_SPI
#define CHANNEL 0
#define SECTOR_ADDR 0x010000UL /* a 4 KiB sector to erase, and the page to program at its start */
#define PAGE_SIZE 256

/* 25-series commands: a command byte, then three address bytes where it takes an address. */
#define CMD_JEDEC_ID 0x9F
#define CMD_READ_STATUS 0x05
#define CMD_WRITE_ENABLE 0x06
#define CMD_SECTOR_ERASE 0x20
#define CMD_PAGE_PROGRAM 0x02
#define CMD_READ 0x03
#define STATUS_BUSY 0x01

static int32_t dev_index = 0;

/* Prints what failed, in the library's own words. */
static int report(const char* what, int32_t code) {
    char text[32];
    KDI_GetErrorString(code, text);
    fprintf(stderr, "spi_flash: %s: %s (%d)\n", what, text, (int)code);
    return 1;
}

static void pause_ms(long ms) {
    struct timespec t;
    t.tv_sec = ms / 1000;
    t.tv_nsec = (ms % 1000) * 1000000L;
    nanosleep(&t, NULL);
}

/* The first adapter whose product name says SPI; -1 when there is none. Reading the board
 * information opens an adapter; the ones looked at stay open until the end, since closing an adapter
 * takes it off the library's list and renumbers those after it. */
static int32_t find_spi_adapter(int32_t count) {
    int32_t i;
    for (i = 0; i < count; ++i) {
        KSI_BOARD_INFO info;
        char name[sizeof info.ProductName + 1];
        memset(&info, 0, sizeof info);
        if (KSI_ReadBoardInfo(i, &info) != KD_SUCCESS) continue;
        memcpy(name, info.ProductName, sizeof info.ProductName);
        name[sizeof info.ProductName] = '\0';
        if (strstr(name, "SPI") != NULL) {
            printf("SPI adapter: %d (%s)\n", (int)i, name);
            return i;
        }
    }
    return -1;
}

static void set_address(uint8_t* cmd, unsigned long addr) {
    cmd[1] = (uint8_t)(addr >> 16);
    cmd[2] = (uint8_t)(addr >> 8);
    cmd[3] = (uint8_t)addr;
}

/* Waits for the flash to finish an erase or a program: reads the status register until BUSY clears,
 * every `step_ms`, at most `polls` times. */
static int32_t wait_ready(long step_ms, int polls) {
    uint8_t cmd = CMD_READ_STATUS;
    uint8_t status = STATUS_BUSY;
    int i;
    for (i = 0; i < polls; ++i) {
        int32_t rc;
        pause_ms(step_ms);
        rc = KSI_WriteReadBytes(DEV_TYPE, dev_index, CHANNEL, &cmd, 1, &status, 1);
        if (rc != KD_SUCCESS) return rc;
        if ((status & STATUS_BUSY) == 0) return KD_SUCCESS;
    }
    return KD_ERR_EXECUTE_CMD;
}

static int32_t write_enable(void) {
    uint8_t cmd = CMD_WRITE_ENABLE;
    return KSI_WriteBytes(DEV_TYPE, dev_index, CHANNEL, &cmd, 1);
}

/* Everything between open and close; returns the exit status. */
static int run(void) {
    KSI_INIT_CONFIG_EX config;
    uint8_t cmd[4 + PAGE_SIZE];
    uint8_t id[3];
    uint8_t back[PAGE_SIZE];
    int32_t rc;
    int i;

    memset(&config, 0, sizeof config);
    config.SPIIndex = CHANNEL;
    config.MasterMode = 1; /* the adapter drives the clock */
    config.CPOL = 0;       /* SPI mode 0, as 25-series flash takes it */
    config.CPHA = 0;
    config.TranBits = 8;         /* bytes */
    config.LSBFirst = 0;         /* most significant bit first */
    config.SelPolarity = 0;      /* chip select active low */
    config.ClockSpeed = 1000000; /* 1 MHz */
    rc = KSI_InitSPIEx(DEV_TYPE, dev_index, &config);
    if (rc != KD_SUCCESS) return report("set up channel 0", rc);

    cmd[0] = CMD_JEDEC_ID;
    rc = KSI_WriteReadBytes(DEV_TYPE, dev_index, CHANNEL, cmd, 1, id, 3);
    if (rc != KD_SUCCESS) return report("read the JEDEC id", rc);
    printf("JEDEC id: %02x %02x %02x\n", id[0], id[1], id[2]);

    rc = write_enable();
    if (rc != KD_SUCCESS) return report("write enable", rc);
    cmd[0] = CMD_SECTOR_ERASE;
    set_address(cmd, SECTOR_ADDR);
    rc = KSI_WriteBytes(DEV_TYPE, dev_index, CHANNEL, cmd, 4);
    if (rc == KD_SUCCESS) rc = wait_ready(50, 100); /* a sector erase takes tens of milliseconds */
    if (rc != KD_SUCCESS) return report("erase the sector", rc);
    printf("erased the sector at 0x%06lx\n", SECTOR_ADDR);

    rc = write_enable();
    if (rc != KD_SUCCESS) return report("write enable", rc);
    cmd[0] = CMD_PAGE_PROGRAM;
    set_address(cmd, SECTOR_ADDR);
    for (i = 0; i < PAGE_SIZE; ++i) cmd[4 + i] = (uint8_t)(i * 7 + 1);
    rc = KSI_WriteBytes(DEV_TYPE, dev_index, CHANNEL, cmd, 4 + PAGE_SIZE);
    if (rc == KD_SUCCESS) rc = wait_ready(1, 100); /* a page program takes about a millisecond */
    if (rc != KD_SUCCESS) return report("program the page", rc);
    printf("programmed %d bytes at 0x%06lx\n", PAGE_SIZE, SECTOR_ADDR);

    cmd[0] = CMD_READ;
    set_address(cmd, SECTOR_ADDR);
    memset(back, 0, sizeof back);
    rc = KSI_WriteReadBytes(DEV_TYPE, dev_index, CHANNEL, cmd, 4, back, PAGE_SIZE);
    if (rc != KD_SUCCESS) return report("read the page back", rc);
    printf("read back: %02x %02x %02x %02x ...\n", back[0], back[1], back[2], back[3]);
    if (memcmp(back, cmd + 4, PAGE_SIZE) != 0) { /* cmd + 4 still holds the page programmed */
        fprintf(stderr, "spi_flash: the bytes read back differ from the bytes programmed\n");
        return 1;
    }
    printf("page verified\n");
    return 0;
}

int main(void) {
    int32_t count;
    int32_t rc;
    int status;

    count = KSI_ScanDevice(1); /* 1: read the USB buses now */
    printf("adapters found: %d\n", (int)count);
    if (count <= 0) return 1;
    dev_index = find_spi_adapter(count);
    if (dev_index < 0) {
        fprintf(stderr, "spi_flash: no SPI adapter found\n");
        return 1;
    }

    rc = KSI_OpenDevice(DEV_TYPE, dev_index, 0);
    if (rc != KD_SUCCESS) return report("open the SPI adapter", rc);

    status = run();

    rc = KSI_CloseDevice(DEV_TYPE, dev_index);
    if (rc != KD_SUCCESS && status == 0) status = report("close the SPI adapter", rc);
    return status;
}
