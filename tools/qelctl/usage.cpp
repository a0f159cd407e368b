// SPDX-License-Identifier: Apache-2.0
// Command lines that are wrong, told so that the operator sees which word to change.
#include <algorithm>
#include <numeric>
#include <vector>

#include "qelctl.h"
#include "text.h"

namespace qelctl {
namespace {

// How many characters must be changed, added or left out, or change places with the next one, to
// make one word of the other.
size_t distance(const std::string &from, const std::string &to) {
    std::vector<size_t> before, last(to.size() + 1), line(to.size() + 1);
    std::iota(last.begin(), last.end(), 0);
    for (size_t i = 1; i <= from.size(); ++i) {
        line[0] = i;
        for (size_t j = 1; j <= to.size(); ++j) {
            size_t changed = last[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            line[j] = std::min({last[j] + 1, line[j - 1] + 1, changed});
            if (i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1])
                line[j] = std::min(line[j], before[j - 2] + 1);
        }
        before = last;
        last = line;
    }
    return last[to.size()];
}

// "; did you mean X?" for the nearest of `words`, if it is near.
std::string suggestion(const std::string &wrong, const std::vector<std::string> &words) {
    constexpr size_t kLongest = 64;
    if (words.empty() || wrong.size() > kLongest)
        return "";
    auto nearest =
        std::min_element(words.begin(), words.end(), [&](const auto &one, const auto &other) {
            return distance(wrong, one) < distance(wrong, other);
        });
    bool begun = !wrong.empty() && nearest->compare(0, wrong.size(), wrong) == 0;
    bool near = distance(wrong, *nearest) <= std::max<size_t>(1, nearest->size() / 2);
    return begun || near ? "; did you mean " + *nearest + "?" : "";
}

std::vector<std::string> option_names(CLI::App &command) {
    std::vector<std::string> names;
    for (const CLI::Option *option : command.get_options())
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
    return names;
}

// An option as it is written, without its value.
std::string name_of(const std::string &word) {
    return word.substr(0, word.find('='));
}

const CLI::Option *option_of(CLI::App &command, const std::string &word) {
    for (CLI::App *level = &command; level != nullptr; level = level->get_parent())
        if (const CLI::Option *option = level->get_option_no_throw(name_of(word)))
            return option;
    return nullptr;
}

CLI::App *subcommand_of(CLI::App &command, const std::string &word) {
    for (CLI::App *inner : command.get_subcommands({}))
        if (inner->get_name() == word)
            return inner;
    return nullptr;
}

std::string path_of(const CLI::App &command) {
    return (command.get_parent() != nullptr ? path_of(*command.get_parent()) + " " : "") +
           command.get_name();
}

}  // namespace

Place find_place(CLI::App &app, const std::vector<std::string> &words) {
    Place place{&app, nullptr, {}, {}};
    for (const std::string &word : words) {
        bool others = place.command->get_prefix_command() && !place.arguments.empty();
        if (place.option != nullptr) {
            place.option = nullptr;
        } else if (!others && word.size() > 1 && word[0] == '-') {
            const CLI::Option *option = option_of(*place.command, word);
            bool value_inside =
                word.find('=') != std::string::npos || (word[1] != '-' && word.size() > 2);
            if (option != nullptr && option->get_items_expected_max() > 0 && !value_inside)
                place.option = option;
        } else if (CLI::App *inner = others ? nullptr : subcommand_of(*place.command, word)) {
            place.command = inner;
        } else if (!others && place.command->get_require_subcommand_min() > 0) {
            place.unknown = word;
            return place;
        } else {
            place.arguments.push_back(word);
        }
    }
    return place;
}

Failure usage_failure(CLI::App &app, const CLI::ParseError &error,
                      const std::vector<std::string> &words) {
    Place place = find_place(app, words);
    std::string help = " (see " + path_of(*place.command) + " --help)", what = error.what();
    if (place.unknown) {
        std::vector<std::string> names;
        for (const CLI::App *command : place.command->get_subcommands({}))
            names.push_back(command->get_name());
        what = path_of(*place.command) + " has no subcommand " + *place.unknown +
               suggestion(*place.unknown, names);
    } else if (dynamic_cast<const CLI::ExtrasError *>(&error) != nullptr) {
        for (const std::string &word : app.remaining(true)) {
            if (word.size() < 2 || word[0] != '-')
                continue;
            what = path_of(*place.command) + " has no option " + name_of(word) +
                   suggestion(name_of(word), option_names(*place.command));
            break;
        }
    }
    return Failure(what + help, kUsage);
}

}  // namespace qelctl
