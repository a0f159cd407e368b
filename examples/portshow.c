/* SPDX-License-Identifier: Apache-2.0 */
/* portshow: a command as an operator meets it. Takes the common option -s (or --switch) and the
   slot and processor overrides out of its command line, reads ports as slot/port, slot/pic/port or
   pic/port, then asks for one setting of each type and says what it got.

     portshow [-s SWITCH] [-l SLOT] [-p PIC] [PORT...]
*/
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <utils/cla.h>
#include <utils/getval.h>
#include <utils/identity.h>

#define NOT_GIVEN (-1)

/* The settings that are asked for, with their values before. */
static struct {
    int32_t speed, mode, enabled, persistent, trunk, port_id, key_bits;
    char name[17], comment[17], contact[17], word[9];
    char host[GETVAL_IP_ROOM], net[GETVAL_IP_ROOM];
    unsigned char wwn[8];
} settings = {2,          0,
              1,          0,
              1,          0x10200,
              56,         "port 7",
              "none",     "root",
              "alpha",    "10.0.0.1",
              "10.0.0.0", {0x10, 0, 0, 0x60, 0x69, 0x80, 0, 0xab}};

static const struct {
    const char *label;
    getvalDesc desc;
} questions[] = {
    {"Speed", {GETVAL_INT, &settings.speed, 0, 8, 2}},
    {"Mode", {GETVAL_HEX, &settings.mode, 0, 0xff, 1}},
    {"Enabled", {GETVAL_TRUE_FALSE, &settings.enabled, 0, 0, 1}},
    {"Persistent", {GETVAL_YES_NO, &settings.persistent, 0, 0, 1}},
    {"Trunking", {GETVAL_ON_OFF, &settings.trunk, 0, 0, 1}},
    {"Name", {GETVAL_STRING, settings.name, 1, 16, 1}},
    {"Port ID", {GETVAL_PORT_ID, &settings.port_id, 0, 0xffffff, 0x100}},
    {"Comment", {GETVAL_STRING_TRIM, settings.comment, 0, 16, 1}},
    {"Contact", {GETVAL_STRING_TRIM_23, settings.contact, 0, 16, 1}},
    {"Host", {GETVAL_IP_HOST, settings.host, 0, 0, 1}},
    {"Gateway", {GETVAL_IP_HOST_13, settings.host, 0, 0, 1}},
    {"Network", {GETVAL_IP_NET, settings.net, 0, 0, 1}},
    {"Key length", {GETVAL_KEY_LEN, &settings.key_bits, 1, 200, 1}},
    {"World wide name", {GETVAL_WWN, settings.wwn, 0, 255, 1}},
    {"Zone", {GETVAL_WORD, settings.word, 1, 8, 1}},
};

static int usage(const char *program) {
    fprintf(stderr, "usage: %s [-s SWITCH] [-l SLOT] [-p PIC] [[SLOT/[PIC/]]PORT...]\n", program);
    return 2;
}

/* One port of the command line; the slot and pic of the options, unless it names its own. */
static int show_port(char *text, int slot, int pic) {
    char *argv[] = {text, NULL};
    clafSlotSlashPort(1, argv, &slot);
    int result = argv[0] == text ? clafSlotSlashPicSlashPort(1, argv, &slot, &pic) : 0;
    int32_t port = 0;
    if (result != 0 || clafGetInt(argv[0], &port) != 0) {
        printf("  %s: %s\n", text,
               result == CLA_ERR_NO_PORT ? "no port behind the slash" : "not a port");
        return 1;
    }
    printf("  %s:", text);
    if (slot != NOT_GIVEN)
        printf(" slot %d,", slot);
    if (pic != NOT_GIVEN)
        printf(" pic %c,", pic + 'A' - 1);
    printf(" port %d\n", (int)port);
    return 0;
}

static void show_value(const getvalDesc *desc) {
    const unsigned char *bytes = desc->value;
    switch (desc->type) {
        case GETVAL_WWN:
            for (int at = 0; at < 8; ++at)
                printf("%02x%s", bytes[at], at < 7 ? ":" : "");
            break;
        case GETVAL_HEX:
        case GETVAL_PORT_ID:
            printf("0x%x", (unsigned)*(const int32_t *)desc->value);
            break;
        case GETVAL_INT:
        case GETVAL_KEY_LEN:
        case GETVAL_TRUE_FALSE:
        case GETVAL_YES_NO:
        case GETVAL_ON_OFF:
            printf("%d", (int)*(const int32_t *)desc->value);
            break;
        default:
            printf("\"%s\"", (const char *)desc->value);
    }
}

int main(int argc, char **argv) {
    int16_t number = NOT_GIVEN;
    int32_t slot = NOT_GIVEN, pic = NOT_GIVEN;
    claFltrEntry options[] = {{'s', "switch", clafGetShort, &number},
                              {'l', "slot", clafMySlot, &slot},
                              {'p', "pic", clafMyPic, &pic},
                              {0, NULL, NULL, NULL}};
    if (claFltr(options, &argc, argv) != 0 || (argc > 1 && argv[1][0] == '-'))
        return usage(argv[0]);
    if (number != NOT_GIVEN && setMySwitch(number) != 0) {
        fprintf(stderr, "%s: there is no switch %d\n", argv[0], number);
        return 2;
    }

    printf("%s: switch %d\n", argv[0], getMySwitch());
    int bad = 0;
    for (int at = 1; at < argc; ++at)
        bad += show_port(argv[at], slot, pic);
    if (bad > 0)
        return 1;

    int changed = 0;
    for (size_t at = 0; at < sizeof questions / sizeof questions[0]; ++at) {
        getvalDesc desc = questions[at].desc;
        int result = getval(questions[at].label, &desc);
        printf("  %s %s ", questions[at].label, result == 1 ? "becomes" : "stays");
        show_value(&desc);
        printf("\n");
        changed += result;
    }
    printf("%s: %d settings changed\n", argv[0], changed);
    return 0;
}
