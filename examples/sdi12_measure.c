/* sdi12_measure: starts a measurement with CRC on the SDI-12 sensor at address 0 on port 0 of an
 * adapter, waits the time the sensor announces, reads the values with their CRC checked and prints
 * them.
 *
 *     sdi12_measure [-d INDEX]
 *
 * "0MC!" is answered "atttn": the values are ready ttt seconds later, n of them. "0D0!" then
 * brings them, each with its sign, followed by three CRC characters, which the library checks
 * (SDI_SendCmd's last argument). On the virtual adapter (whose clock makes the wait instant):
 *     corvel-sim build/bin/sdi12_measure
 */
#define _XOPEN_SOURCE 500 /* sleep */

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "ControlSDI.h"

#define DEV_TYPE KD_DEVTYPE_I2C
#define PORT 0
#define LINE_SIZE 512 /* what SDI_SendCmd may write */
#define CRC_CHARS 3

static int report(const char* what, int32_t code) {
    char text[64];
    KDI_GetErrorString(code, text);
    fprintf(stderr, "sdi12_measure: %s: %s (%d)\n", what, text, (int)code);
    return 1;
}

/* Sends one command; the answer without its CR LF is left in `line`. */
static int32_t command(int32_t dev, const char* cmd, char* line, int check_crc) {
    char text[16];
    size_t len;
    int32_t rc;
    strcpy(text, cmd);
    memset(line, 0, LINE_SIZE);
    rc = SDI_SendCmd(DEV_TYPE, dev, PORT, (uint8_t*)text, (uint8_t*)line, (uint8_t)check_crc);
    len = strlen(line);
    if (len >= 2 && line[len - 2] == '\r' && line[len - 1] == '\n') line[len - 2] = '\0';
    return rc;
}

/* The values of a data answer: after the address, each starts with its sign. */
static void print_values(const char* line) {
    size_t end = strlen(line) - CRC_CHARS;
    size_t i = 1;
    int n = 0;
    while (i < end) {
        size_t j = i + 1;
        while (j < end && line[j] != '+' && line[j] != '-') ++j;
        printf("value %d: %s%.*s\n", ++n, line[i] == '-' ? "-" : "", (int)(j - i - 1), line + i + 1);
        i = j;
    }
}

int main(int argc, char** argv) {
    int32_t dev = 0;
    int32_t rc;
    char line[LINE_SIZE];
    unsigned seconds, values;

    if (argc == 3 && strcmp(argv[1], "-d") == 0) {
        dev = atoi(argv[2]);
    } else if (argc != 1) {
        fprintf(stderr, "usage: sdi12_measure [-d INDEX]\n");
        return 2;
    }
    if (SDI_ScanDevice(1) <= 0) {
        fprintf(stderr, "sdi12_measure: no adapter found\n");
        return 1;
    }
    rc = SDI_OpenDevice(DEV_TYPE, dev, 0);
    if (rc != 0) return report("open adapter", rc);
    rc = SDI_InitSDI(DEV_TYPE, dev, PORT);
    if (rc != 0) {
        report("set up the port", rc);
    } else if ((rc = command(dev, "0MC!", line, 0)) != 0) {
        report("0MC!", rc);
    } else if (strlen(line) != 5 || sscanf(line + 1, "%3u%1u", &seconds, &values) != 2) {
        fprintf(stderr, "sdi12_measure: 0MC! answered \"%s\", not atttn\n", line);
        rc = 1;
    } else {
        printf("0MC! -> %s\n", line);
        printf("waiting %u s for %u values\n", seconds, values);
        sleep(seconds);
        rc = command(dev, "0D0!", line, 1);
        if (rc == KD_ERR_DEVICE_NOT_AVAILABLE) {
            fprintf(stderr, "sdi12_measure: 0D0! answered \"%s\": CRC mismatch\n", line);
        } else if (rc != 0) {
            report("0D0!", rc);
        } else if (strlen(line) < 1 + CRC_CHARS) {
            fprintf(stderr, "sdi12_measure: 0D0! answered \"%s\": no values\n", line);
            rc = 1;
        } else {
            printf("0D0! -> %s (CRC ok)\n", line);
            print_values(line);
        }
    }
    SDI_CloseDevice(DEV_TYPE, dev);
    return rc == 0 ? 0 : 1;
}
