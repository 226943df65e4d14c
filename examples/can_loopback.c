/* can_loopback: sends frames on channel 1 of a two-channel CAN adapter and receives them on
 * channel 2, through the ControlCAN-style interface. Both channels must be wired to one bus.
 *
 *     can_loopback [-d INDEX] [RATE1 [RATE2]]
 *
 * RATE1 and RATE2 are the channels' bit rates in kbit/s (5, 10, 20, 40, 50, 80, 100, 125, 200,
 * 250, 400, 500, 666, 800 or 1000; a trailing k is allowed), 500 each by default. Without -d the
 * first adapter whose product name says CAN is used. At equal rates every frame sent must arrive;
 * at different rates none may. The exit status is 0 when that is what happened.
 *
 * Channel 2 accepts only this program's identifiers (0x700 to 0x70F), so that the frames of other
 * nodes on the bus do not count. Run it with an adapter plugged in, or on the virtual adapter:
 *     corvel-sim build/bin/can_loopback
 *     corvel-sim build/bin/can_loopback 500 250
 */
#define _XOPEN_SOURCE 500 /* usleep */

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ControlCAN.h"

#define DEV_TYPE VCI_USBCAN2
#define FRAMES 10
#define FIRST_ID 0x700
#define WAIT_STEP_US 10000 /* the library's read threads poll every 10 ms */
#define WAIT_STEPS 200     /* give up after two seconds */

/* The ControlCAN bus-timing pairs. */
static const struct {
    unsigned kbps;
    uint8_t timing0, timing1;
} rates[] = {{5, 0xBF, 0xFF},   {10, 0x31, 0x1C},  {20, 0x18, 0x1C},  {40, 0x87, 0xFF},  {50, 0x09, 0x1C},
             {80, 0x83, 0xFF},  {100, 0x04, 0x1C}, {125, 0x03, 0x1C}, {200, 0x81, 0xFA}, {250, 0x01, 0x1C},
             {400, 0x80, 0xFA}, {500, 0x00, 0x1C}, {666, 0x80, 0xB6}, {800, 0x00, 0x16}, {1000, 0x00, 0x14}};

static uint32_t dev_index = 0;

/* The row of a rate given as "500" or "500k"; -1 when the table has no such rate. */
static int rate_row(const char* text) {
    char* end;
    unsigned long kbps = strtoul(text, &end, 10);
    size_t i;
    if (end == text || (*end != '\0' && strcmp(end, "k") != 0)) return -1;
    for (i = 0; i < sizeof rates / sizeof rates[0]; ++i) {
        if (rates[i].kbps == kbps) return (int)i;
    }
    return -1;
}

/* Prints what failed with the channel's error record, which the library fills on a failure. */
static int report(const char* what, uint32_t can_index) {
    VCI_ERR_INFO info;
    memset(&info, 0, sizeof info);
    VCI_ReadErrInfo(DEV_TYPE, dev_index, can_index, &info);
    fprintf(stderr, "can_loopback: %s failed (error record 0x%04x)\n", what, (unsigned)info.ErrCode);
    return 1;
}

/* The first adapter whose product name says CAN; -1 when there is none. Reading the board
 * information opens an adapter; the ones looked at stay open until the end, since closing an adapter
 * takes it off the library's list and renumbers those after it. */
static int32_t find_can_adapter(uint32_t count) {
    uint32_t i;
    for (i = 0; i < count; ++i) {
        VCI_BOARD_INFO_EX info;
        char name[sizeof info.ProductName + 1];
        memset(&info, 0, sizeof info);
        if (VCI_ReadBoardInfoEx(i, &info) != STATUS_OK) continue;
        memcpy(name, info.ProductName, sizeof info.ProductName);
        name[sizeof info.ProductName] = '\0';
        if (strstr(name, "CAN") != NULL) {
            printf("CAN adapter: %u (%s)\n", (unsigned)i, name);
            return (int32_t)i;
        }
    }
    return -1;
}

/* Channel 1 or 2 (CAN index 0 or 1) at a rate of the table; channel 2 takes identifiers 0x700 to
 * 0x70F only: the standard identifier in the top 11 bits of the acceptance code, the bits that may
 * differ set in the mask, and the low 21 bits (remote bit and the unused ones) free. */
static int init_channel(uint32_t can_index, int row) {
    VCI_INIT_CONFIG config;
    memset(&config, 0, sizeof config);
    config.Filter = 1;
    if (can_index == 0) {
        config.AccCode = 0;
        config.AccMask = 0xFFFFFFFF; /* everything */
    } else {
        config.AccCode = (uint32_t)FIRST_ID << 21;
        config.AccMask = ((uint32_t)0x00F << 21) | 0x001FFFFF;
    }
    config.Timing0 = rates[row].timing0;
    config.Timing1 = rates[row].timing1;
    config.Mode = 0; /* normal */
    if (VCI_InitCAN(DEV_TYPE, dev_index, can_index, &config) != STATUS_OK) {
        return report(can_index == 0 ? "set up channel 1" : "set up channel 2", can_index);
    }
    if (VCI_StartCAN(DEV_TYPE, dev_index, can_index) != STATUS_OK) {
        return report(can_index == 0 ? "start channel 1" : "start channel 2", can_index);
    }
    return 0;
}

static int run(int row1, int row2) {
    VCI_CAN_OBJ frames[FRAMES];
    VCI_CAN_OBJ got[FRAMES];
    uint32_t received, i;
    int step;

    if (init_channel(0, row1) != 0 || init_channel(1, row2) != 0) return 1;
    printf("channel 1 at %u kbit/s, channel 2 at %u kbit/s\n", rates[row1].kbps, rates[row2].kbps);

    memset(frames, 0, sizeof frames);
    for (i = 0; i < FRAMES; ++i) {
        frames[i].ID = FIRST_ID + i;
        frames[i].SendType = 0;
        frames[i].DataLen = 8;
        memcpy(frames[i].Data, "\x11\x22\x33\x44\x55\x66\x77", 7);
        frames[i].Data[7] = (uint8_t)i;
    }
    if (VCI_Transmit(DEV_TYPE, dev_index, 0, frames, FRAMES) != FRAMES) return report("send on channel 1", 0);
    printf("sent %d frames on channel 1\n", FRAMES);

    /* VCI_Receive never waits: poll until all have come, or a second has passed. */
    for (step = 0; step < WAIT_STEPS && VCI_GetReceiveNum(DEV_TYPE, dev_index, 1) < FRAMES; ++step) {
        usleep(WAIT_STEP_US);
    }
    received = VCI_Receive(DEV_TYPE, dev_index, 1, got, FRAMES, 0);
    if (received == 0xFFFFFFFF) return report("receive on channel 2", 1);
    for (i = 0; i < received; ++i) {
        uint32_t b;
        printf("  %03X  [%u] ", (unsigned)got[i].ID, (unsigned)got[i].DataLen);
        for (b = 0; b < got[i].DataLen && b < 8; ++b) printf(" %02X", got[i].Data[b]);
        printf("\n");
    }
    printf("received %u of %d frames on channel 2\n", (unsigned)received, FRAMES);

    if (row1 == row2 && received != FRAMES) {
        fprintf(stderr, "can_loopback: at equal rates every frame should have arrived\n");
        return 1;
    }
    if (row1 != row2 && received != 0) {
        fprintf(stderr, "can_loopback: at different rates no frame should have arrived\n");
        return 1;
    }
    return 0;
}

int main(int argc, char** argv) {
    int row1 = rate_row("500"), row2 = row1;
    int arg = 1;
    int32_t found = -1;
    uint32_t count;
    int status;

    if (argc > 2 && strcmp(argv[1], "-d") == 0) {
        found = atoi(argv[2]);
        arg = 3;
    }
    if (arg < argc) row1 = row2 = rate_row(argv[arg++]);
    if (arg < argc) row2 = rate_row(argv[arg++]);
    if (row1 < 0 || row2 < 0 || arg < argc) {
        fprintf(stderr, "usage: can_loopback [-d INDEX] [RATE1 [RATE2]] (rates in kbit/s: 5 to 1000)\n");
        return 2;
    }

    count = VCI_ScanDevice(1); /* 1: read the USB buses now */
    printf("adapters found: %u\n", (unsigned)count);
    if (count == 0) return 1;
    if (found < 0) found = find_can_adapter(count);
    if (found < 0) {
        fprintf(stderr, "can_loopback: no CAN adapter found\n");
        return 1;
    }
    dev_index = (uint32_t)found;

    if (VCI_OpenDevice(DEV_TYPE, dev_index, 0) != STATUS_OK) return report("open the CAN adapter", 0);
    status = run(row1, row2);
    /* Closing stops both read threads. */
    if (VCI_CloseDevice(DEV_TYPE, dev_index) != STATUS_OK && status == 0)
        status = report("close the adapter", 0);
    return status;
}
