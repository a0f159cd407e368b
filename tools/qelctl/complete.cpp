// SPDX-License-Identifier: Apache-2.0
// Completion of command lines: from the same tree of subcommands and options that parses them, and
// from what there is on this machine.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <memory>
#include <set>

#include "daemons.h"
#include "qelctl.h"
#ifdef QELCTL_STAND_IN
#include "sections.h"
#endif
#include "text.h"
#include "utils/identity.h"
#include "utils/tnet_cmd.h"

namespace qelctl {
namespace {

constexpr unsigned kPatienceSeconds = 2;
constexpr const char *kFileNames = "/";

// Each once, sorted; what a shell should not see is left out.
class Candidates {
  public:
    explicit Candidates(const std::string &begin) : begin_(begin) {}
    void add(const std::string &word) {
        bool fits = word.compare(0, begin_.size(), begin_) == 0;
        if (word == kFileNames || (fits && !word.empty() && visible_name(word) == word))
            words_.insert(word);
    }
    void print() const {
        for (const std::string &word : words_)
            printf("%s\n", word.c_str());
    }

  private:
    std::string begin_;
    std::set<std::string> words_;
};

void add_daemons(Candidates &candidates) {
    for (const Daemon &daemon : find_daemons())
        if (daemon.life != Life::kStale && daemon.switch_no == getMySwitch())
            candidates.add(daemon.name);
}

// The first words of what the daemon's help says. It may hang: then there are none.
void add_commands_of(const std::string &daemon, Candidates &candidates) {
    signal(SIGALRM, [](int) { _exit(kDone); });
    alarm(kPatienceSeconds);
    int connection = connect_to(command_socket(daemon), SOCK_STREAM);
    std::unique_ptr<FILE, int (*)(FILE *)> output(tmpfile(), fclose);
    if (connection < 0 || !output || fcntl(connection, F_SETFL, 0) != 0)
        return;
    char help[] = "help";
    char *words[] = {help, nullptr};
    qelTnetCmd(connection, 1, words, fileno(output.get()));
    close(connection);
    alarm(0);
    rewind(output.get());
    char line[512];
    while (fgets(line, sizeof line, output.get()) != nullptr) {
        std::string text = line;
        if (isalnum(static_cast<unsigned char>(text[0])) != 0)
            candidates.add(text.substr(0, text.find_first_of(" \t\n")));
    }
}

// What a value of this kind may be.
void add_values(const std::string &kind, Candidates &candidates) {
    if (kind == "FILE" || kind == "TARGET" || kind == "SECTION")
        candidates.add(kFileNames);
    if (kind == "DAEMON")
        add_daemons(candidates);
    if (kind == "N" || kind == "SWITCH")
        for (const Daemon &daemon : find_daemons())
            candidates.add(std::to_string(daemon.switch_no));
#ifdef QELCTL_STAND_IN
    if (kind == "PID" || kind == "SECTION" || kind == "DAEMON of logs")
        for (const SectionFile &file : section_files())
            candidates.add(kind == "PID"       ? std::to_string(file.pid)
                           : kind == "SECTION" ? file.path.filename().string()
                                               : file.daemon);
#endif
}

const CLI::Option *positional(CLI::App &command, size_t number) {
    for (const CLI::Option *option : command.get_options())
        if (option->get_positional() && number-- == 0)
            return option;
    return nullptr;
}

void add_option_values(const Place &place, const CLI::Option &option, Candidates &candidates) {
    std::string kind = option.get_type_name();  // behind a colon it has the bounds
    kind.erase(std::min(kind.find(':'), kind.size()));
    add_values(place.command->get_name() == "evlog" && kind == "DAEMON" ? "DAEMON of logs" : kind,
               candidates);
}

void add_words(const Place &place, const std::string &begin, Candidates &candidates) {
    bool is_option = begin.compare(0, 1, "-") == 0;
    for (const CLI::App *inner : place.command->get_subcommands({}))
        candidates.add(inner->get_name());
    const CLI::Option *next = positional(*place.command, place.arguments.size());
    if (next != nullptr && !is_option)
        add_values(next->get_single_name(), candidates);
    if (is_option || (next == nullptr && place.command->get_subcommands({}).empty()))
        for (const CLI::Option *option : place.command->get_options())
            for (const std::string &name : option->get_lnames())
                candidates.add("--" + name);
}

// The switch is parsed by hand: the line is not whole.
void take_switch(const std::vector<std::string> &words) {
    for (size_t i = 0; i < words.size(); ++i) {
        std::string value;
        if ((words[i] == "-s" || words[i] == "--switch") && i + 1 < words.size())
            value = words[i + 1];
        else if (words[i].compare(0, 2, "-s") == 0)
            value = words[i].substr(2);
        if (std::optional<int> number = number_in(value, 0, IDENTITY_SWITCH_MAX))
            setMySwitch(*number);
    }
}

}  // namespace

void complete(CLI::App &app, std::vector<std::string> words) {
    // The shell makes words of their own of the signs that part an option from its value.
    std::erase(words, "=");
    std::string begin = words.empty() ? "" : words.back();
    if (!words.empty())
        words.pop_back();
    take_switch(words);
    Place place = find_place(app, words);
    Candidates candidates(begin);
    if (place.option != nullptr)
        add_option_values(place, *place.option, candidates);
    else if (place.command->get_prefix_command() && place.arguments.size() == 1)
        add_commands_of(place.arguments[0], candidates);
    else if (!place.unknown && !(place.command->get_prefix_command() && !place.arguments.empty()))
        add_words(place, begin, candidates);
    candidates.print();
}

}  // namespace qelctl
