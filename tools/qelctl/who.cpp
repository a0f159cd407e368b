// qelctl who: where this is.
#include <cstdio>

#include "qelctl.h"
#include "text.h"
#include "utils/clock.h"
#include "utils/identity.h"

namespace qelctl {
namespace {

void who() {
    printf("node:      %d\n", myNode());
    printf("peer:      %d\n", peerNode());
    printf("switch:    %d\n", getMySwitch());
    printf("slot:      %d\n", getMySlot());
    printf("pic:       %d\n", getMyPic());
    const char *version = getFirmwareVersion();
    printf("firmware:  %s\n", version != nullptr ? visible_name(version).c_str() : "unknown");
    const char *booted = dateBooted();
    printf("booted:    %s", booted != nullptr ? booted : "unknown\n");
}

}  // namespace

void add_who(CLI::App &app) {
    CLI::App *command =
        add_subcommand(app, "who", "Print node, switch, slot, firmware version and boot time");
    add_switch_option(*command);
    command->callback(who);
}

}  // namespace qelctl
