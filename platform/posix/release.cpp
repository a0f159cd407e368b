// SPDX-License-Identifier: Apache-2.0
// The release record of a host: "Release " and the version in "/etc/os-release".
#include "utils/platform/release.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr const char *kReleaseFile = "/etc/os-release";
constexpr const char *kKey = "VERSION_ID=";

// The value behind the key, without quotes and line end; empty when `line` has another key.
const char *value_of(char *line) {
    if (strncmp(line, kKey, strlen(kKey)) != 0)
        return "";
    char *value = line + strlen(kKey);
    value += strspn(value, "\"'");
    value[strcspn(value, "\"'\n")] = '\0';
    return value;
}

}  // namespace

int get_release_info(int which, release_info *info) {
    FILE *file = which == 0 && info != nullptr ? fopen(kReleaseFile, "re") : nullptr;
    if (file == nullptr)
        return -1;
    bool found = false;
    char line[256];
    while (!found && fgets(line, sizeof line, file) != nullptr) {
        const char *version = value_of(line);
        found = *version != '\0';
        if (found)
            snprintf(info->name, sizeof info->name, "Release %.*s",
                     static_cast<int>(sizeof info->name) - 10, version);
    }
    fclose(file);
    return found ? 0 : -1;
}
