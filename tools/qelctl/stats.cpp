// SPDX-License-Identifier: Apache-2.0
// qelctl stats: the service statistics report of a switch, as a table or as bars.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "json.h"
#include "qelctl.h"
#include "text.h"
#include "utils/identity.h"
#include "utils/service_stat.h"

namespace qelctl {
namespace {

// The numbers of a row stand in columns of these widths at its end, in front of them the label and
// the request, each with blanks up to its width. A longer one moves what follows.
constexpr int kWidths[] = {8, 8, 8, 12, 12, 12, 12, 12};
constexpr size_t kNumbersWidth = 84;
constexpr size_t kLabelWidth = 5;
constexpr size_t kRequestWidth = 35;
enum Column {
    kCalls,
    kRejects,
    kDrops,
    kAverage,
    kHighest,
    kLowest,
    kQueueAverage,
    kQueueHighest,
    kColumns
};

struct Row {
    std::string service, request;
    long long numbers[kColumns];
};

std::string trimmed(const std::string &text) {
    size_t begin = text.find_first_not_of(' '), end = text.find_last_not_of(' ');
    return begin == std::string::npos ? "" : text.substr(begin, end - begin + 1);
}

// Where the label ends. A request that ends in blanks is not longer than its column, so that the
// label has the rest; any other is taken to have moved the numbers by itself.
size_t label_width(const std::string &names) {
    bool padded = names.back() == ' ' && names.size() > kLabelWidth + kRequestWidth;
    return padded ? names.size() - kRequestWidth : kLabelWidth;
}

// The heading and whatever else does not end in eight numbers is no row.
bool parse(const std::string &line, Row &row) {
    if (line.size() < kNumbersWidth + kLabelWidth)
        return false;
    size_t at = line.size() - kNumbersWidth;
    for (int column = 0; column < kColumns; ++column) {
        std::string field = line.substr(at, static_cast<size_t>(kWidths[column]));
        at += field.size();
        char *end = nullptr;
        row.numbers[column] = strtoll(field.c_str(), &end, 10);
        if (*end != '\0' || field.back() == ' ')
            return false;
    }
    std::string names = line.substr(0, line.size() - kNumbersWidth);
    size_t label = label_width(names);
    row.service = visible_name(trimmed(names.substr(0, label)));
    row.request = visible_name(trimmed(names.substr(label)));
    return true;
}

struct Report {
    std::string path, owner;
    std::vector<Row> rows;
};

Report read_report(const std::string &path) {
    std::ifstream file(path);
    struct stat status {};
    if (!file || stat(path.c_str(), &status) != 0)
        throw Failure(path + (errno == EACCES ? ": permission denied" : ": no report"));
    Report report{path, user_name(status.st_uid), {}};
    Row row;
    for (std::string line; std::getline(file, line);) {
        if (parse(line, row))
            report.rows.push_back(row);
    }
    if (report.rows.empty())
        throw Failure(path + ": no rows");
    return report;
}

void print_document(const Report &report, int switch_no) {
    Json document = new_document();
    document["switch"] = switch_no;
    document["file"] = report.path;
    document["owner"] = report.owner;
    document["rows"] = Json::array();
    for (const Row &row : report.rows)
        document["rows"].push_back(
            {{"service", row.service},
             {"request", row.request},
             {"calls", row.numbers[kCalls]},
             {"rejects", row.numbers[kRejects]},
             {"drops", row.numbers[kDrops]},
             {"service_us",
              {{"average", row.numbers[kAverage]},
               {"highest", row.numbers[kHighest]},
               {"lowest", row.numbers[kLowest]}}},
             {"queue_ms",
              {{"average", row.numbers[kQueueAverage]}, {"highest", row.numbers[kQueueHighest]}}}});
    print_json(document);
}

void print_table(const std::vector<Row> &rows) {
    int label = 7;
    for (const Row &row : rows)
        label = std::max(label, static_cast<int>(row.service.size()));
    printf("%-*s  %-24s  %8s %8s %8s  %10s %10s %10s  %8s %8s\n", label, "", "", "", "", "",
           "SERVICE us", "", "", "QUEUE ms", "");
    printf("%-*s  %-24s  %8s %8s %8s  %10s %10s %10s  %8s %8s\n", label, "SERVICE", "REQUEST",
           "CALLS", "REJECTS", "DROPS", "AVERAGE", "HIGHEST", "LOWEST", "AVERAGE", "HIGHEST");
    for (const Row &row : rows)
        printf("%-*s  %-24s  %8lld %8lld %8lld  %10lld %10lld %10lld  %8lld %8lld\n", label,
               row.service.c_str(), row.request.c_str(), row.numbers[kCalls], row.numbers[kRejects],
               row.numbers[kDrops], row.numbers[kAverage], row.numbers[kHighest],
               row.numbers[kLowest], row.numbers[kQueueAverage], row.numbers[kQueueHighest]);
}

size_t terminal_width() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    const char *columns = getenv("COLUMNS");
    return static_cast<size_t>(number_in(columns != nullptr ? columns : "", 1, 10000).value_or(80));
}

void print_bars(const std::vector<Row> &rows, Column column, const char *title) {
    constexpr size_t kFrame = 7 + 2 + 24 + 2 + 12;
    size_t width = std::max<size_t>(terminal_width(), kFrame + 10) - kFrame;
    long long highest = 1;
    for (const Row &row : rows)
        highest = std::max(highest, row.numbers[column]);
    printf("%s\n", title);
    for (const Row &row : rows) {
        auto length =
            static_cast<size_t>(static_cast<double>(std::max(row.numbers[column], 0LL)) *
                                static_cast<double>(width) / static_cast<double>(highest));
        printf("%-7s  %-24s  %10lld  %s\n", row.service.c_str(), row.request.c_str(),
               row.numbers[column], std::string(std::min(length, width), '#').c_str());
    }
}

struct Request {
    int switch_no = -1;
    bool plot = false;
};

void stats(const Request &choice) {
    char path[64];
    int switch_no = choice.switch_no >= 0 ? choice.switch_no : getMySwitch();
    snprintf(path, sizeof path, SERVICE_STAT_FILE, switch_no);
    Report report = read_report(path);
    if (common_options().json)
        return print_document(report, switch_no);
    if (report.owner != user_name(0))
        printf("The report is %s's.\n", report.owner.c_str());
    if (!choice.plot)
        return print_table(report.rows);
    print_bars(report.rows, kCalls, "Calls");
    printf("\n");
    print_bars(report.rows, kAverage, "Average service time (microseconds)");
}

}  // namespace

void add_stats(CLI::App &app) {
    static Request choice;
    CLI::App *command = add_subcommand(app, "stats", "Print the service statistics of a switch");
    add_switch_option(*command, "Logical switch (default: KORIN_SWITCHNO, else 0)");
    add_json_option(*command);
    command->add_option("SWITCH", choice.switch_no, "The same as --switch")
        ->check(CLI::Range(0, IDENTITY_SWITCH_MAX));
    command->add_flag("--plot", choice.plot, "Draw bars instead of a table");
    command->footer(
        "The report is a text of fixed columns: 5 characters for the label of the service, 35 for "
        "the\n"
        "request, then the numbers. A longer label or request moves what follows: a label of any\n"
        "length is still found when its request has less than 35 characters; else the first 5\n"
        "characters are taken for the label.\n\n"
        "JSON: switch, file, owner and rows, an array of objects with service, request, calls,\n"
        "rejects, drops, service_us (average, highest and lowest, in microseconds) and queue_ms\n"
        "(average and highest, in milliseconds).");
    command->callback([] { stats(choice); });
}

}  // namespace qelctl
