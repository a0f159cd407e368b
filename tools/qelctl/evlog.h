// SPDX-License-Identifier: Apache-2.0
// The parts of qelctl evlog.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "qelctl.h"
#include "sections.h"

namespace qelctl {

using FindSections = std::function<std::vector<SectionFile>()>;

// Prints the events of all these logs as they come, those of logs that are added meanwhile, too,
// until the last of their writers is dead (or for good, when it is not known).
void follow(const FindSections &find);

// Writes the events of these logs for a viewer: a page of its own when `path` ends in ".html", else
// a trace-event file. "-" is standard output.
void write_timeline(const std::vector<SectionFile> &files, const std::string &path);

// Calls `visit` with each log; one that cannot be read hides none of the others. The failure of the
// last of these comes back, to be thrown in the end, those before it are reported.
std::optional<Failure> each_log(const std::vector<SectionFile> &files,
                                const std::function<void(const SectionFile &, Section &)> &visit);

}  // namespace qelctl
