// SPDX-License-Identifier: Apache-2.0
// qelctl who: where this is.
#include <cstdio>

#include "json.h"
#include "qelctl.h"
#include "text.h"
#include "utils/clock.h"
#include "utils/identity.h"

namespace qelctl {
namespace {

std::string line_of(const char *text) {
    return std::string(text, strcspn(text, "\n"));
}

void print_document(bool node_known, const char *version, const char *booted) {
    Json document = new_document();
    document["node"] = myNode();
    document["node_known"] = node_known;
    document["peer"] = peerNode();
    document["switch"] = getMySwitch();
    document["slot"] = getMySlot();
    document["pic"] = getMyPic();
    document["firmware"] = version != nullptr ? Json(line_of(version)) : Json(nullptr);
    document["booted"] = booted != nullptr ? Json(line_of(booted)) : Json(nullptr);
    print_json(document);
}

void who() {
    bool node_known = learn_node();
    const char *version = getFirmwareVersion();
    const char *booted = dateBooted();
    if (common_options().json)
        return print_document(node_known, version, booted);
    printf("node:      %d%s\n", myNode(),
           node_known ? "" : " (by default: /config/haconfig cannot be read)");
    printf("peer:      %d\n", peerNode());
    printf("switch:    %d\n", getMySwitch());
    printf("slot:      %d\n", getMySlot());
    printf("pic:       %d\n", getMyPic());
    printf("firmware:  %s\n", version != nullptr ? visible_name(version).c_str() : "unknown");
    printf("booted:    %s", booted != nullptr ? booted : "unknown\n");
}

}  // namespace

void add_who(CLI::App &app) {
    CLI::App *command =
        add_subcommand(app, "who", "Print node, switch, slot, firmware version and boot time");
    add_switch_option(*command);
    add_json_option(*command);
    command->footer(
        "JSON: node, node_known (whether a file says so), peer, switch, slot, pic, firmware and\n"
        "booted (a text in local time).");
    command->callback(who);
}

}  // namespace qelctl
