// qelctl stats: the service statistics report of a switch, as a table or as bars.
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <vector>

#include "qelctl.h"
#include "text.h"
#include "utils/identity.h"
#include "utils/service_stat.h"

namespace qelctl {
namespace {

// The numbers of a row stand in columns of these widths at its end.
constexpr int kWidths[] = {8, 8, 8, 12, 12, 12, 12, 12};
constexpr size_t kNumbersWidth = 84;
constexpr size_t kLabelWidth = 5;
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
    row.service = visible_name(trimmed(names.substr(0, kLabelWidth)));
    row.request = visible_name(trimmed(names.substr(kLabelWidth)));
    return true;
}

std::vector<Row> read_report(const std::string &path) {
    std::ifstream file(path);
    if (!file)
        throw Failure(path + ": no report");
    std::vector<Row> rows;
    Row row;
    for (std::string line; std::getline(file, line);) {
        if (parse(line, row))
            rows.push_back(row);
    }
    if (rows.empty())
        throw Failure(path + ": no rows");
    return rows;
}

void print_table(const std::vector<Row> &rows) {
    printf("%-7s  %-24s  %8s %8s %8s  %10s %10s %10s  %8s %8s\n", "", "", "", "", "", "SERVICE us",
           "", "", "QUEUE ms", "");
    printf("%-7s  %-24s  %8s %8s %8s  %10s %10s %10s  %8s %8s\n", "SERVICE", "REQUEST", "CALLS",
           "REJECTS", "DROPS", "AVERAGE", "HIGHEST", "LOWEST", "AVERAGE", "HIGHEST");
    for (const Row &row : rows)
        printf("%-7s  %-24s  %8lld %8lld %8lld  %10lld %10lld %10lld  %8lld %8lld\n",
               row.service.c_str(), row.request.c_str(), row.numbers[kCalls], row.numbers[kRejects],
               row.numbers[kDrops], row.numbers[kAverage], row.numbers[kHighest],
               row.numbers[kLowest], row.numbers[kQueueAverage], row.numbers[kQueueHighest]);
}

size_t terminal_width() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    const char *columns = getenv("COLUMNS");
    return columns != nullptr && atoi(columns) > 0 ? static_cast<size_t>(atoi(columns)) : 80;
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
            static_cast<size_t>(static_cast<double>(row.numbers[column]) *
                                static_cast<double>(width) / static_cast<double>(highest));
        printf("%-7s  %-24s  %10lld  %s\n", row.service.c_str(), row.request.c_str(),
               row.numbers[column], std::string(std::min(length, width), '#').c_str());
    }
}

struct Choice {
    int switch_no = -1;
    bool plot = false;
};

void stats(const Choice &choice) {
    char path[64];
    snprintf(path, sizeof path, SERVICE_STAT_FILE,
             choice.switch_no >= 0 ? choice.switch_no : getMySwitch());
    std::vector<Row> rows = read_report(path);
    if (!choice.plot)
        return print_table(rows);
    print_bars(rows, kCalls, "Calls");
    printf("\n");
    print_bars(rows, kAverage, "Average service time (microseconds)");
}

}  // namespace

void add_stats(CLI::App &app) {
    static Choice choice;
    CLI::App *command = add_subcommand(app, "stats", "Print the service statistics of a switch");
    command->add_option("SWITCH", choice.switch_no, "Logical switch (default: this one)")
        ->check(CLI::Range(0, 240));
    command->add_flag("--plot", choice.plot, "Draw bars instead of a table");
    command->callback([] { stats(choice); });
}

}  // namespace qelctl
