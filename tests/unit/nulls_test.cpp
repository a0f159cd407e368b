// SPDX-License-Identifier: Apache-2.0
// Null in the place of each argument, in all families: a stated result, or nothing happens.
#include <sys/time.h>

#include "support/support.h"
#include "utils/utils.h"

namespace {

// Calls `function` with one pointer after the other being null, which gives `results` in turn.
template <typename Result, typename... Parameters>
void nulls(const char *name, Result (*function)(Parameters...),
           std::initializer_list<std::conditional_t<std::is_void_v<Result>, int, Result>> results,
           std::type_identity_t<Parameters>... arguments) {
    auto *expected = results.begin();
    auto call = [&]<size_t place>(std::tuple<Parameters...> given) {
        auto &argument = std::get<place>(given);
        if constexpr (std::is_pointer_v<std::remove_reference_t<decltype(argument)>>) {
            argument = nullptr;
            if constexpr (std::is_void_v<Result>)
                std::apply(function, given);
            else
                EXPECT_EQ(std::apply(function, given), *expected++) << name << " " << place;
        }
    };
    [&]<size_t... places>(std::index_sequence<places...>) {
        (call.template operator()<places>({arguments...}), ...);
    }
    (std::index_sequence_for<Parameters...>());
}
#define NULLS(function, ...) nulls(#function, function, __VA_ARGS__)

TEST(Nulls, InCommandLines) {
    char text[100] = "1/2", *argv[] = {text, nullptr}, *none[] = {nullptr, nullptr}, *out[4];
    int argc = 2, slot = 7, pic = 7;
    claFltrEntry table[] = {{'x', "x", clafGetInt, &slot}, {0, nullptr, nullptr, nullptr}};
    NULLS(clafArgPresent, {-7, 0}, 1, argv, "1/2");
    NULLS(clafSlotSlashPort, {-7, 0}, 1, none, &slot);
    NULLS(clafSlotSlashPicSlashPort, {-7, 0, 0}, 1, argv, &slot, &pic);
    NULLS(claReparse, {-22, -22, 1}, 1, argv, out, 3, "/");
    EXPECT_EQ(claFltr(table, &argc, none), 0);
    EXPECT_EQ(clafSlotSlashPicSlashPort(1, none, &slot, &pic), 0);
    EXPECT_EQ(claReparse(1, none, out, 3, "/"), 0);
    auto seen = [](void *, qelGetOptState *state) { return state->opt; };
    NULLS(qelGetOpt, {-1, -1, -1, -1}, 1, argv, "x", seen, text);
    EXPECT_EQ(qelGetOpt(1, none, "x", seen, nullptr), -1);
}

TEST(Nulls, InEventLogs) {
    char line[QEL_EVLOG_LINE_SIZE] = "";
    qel_evlog_db db;
    qel_evlog_entry entry{};
    qel_evlog_init(&db);
    qel_evlog_handle *log = qel_evlog_newHandle(&db, 1, "log", "l");
    FILE *sink = fopen("/dev/null", "we");
    EXPECT_EQ(qel_evlog_newHandle(nullptr, 1, "log", "l"), nullptr);
    EXPECT_EQ(qel_evlog(nullptr, "text"), nullptr);
    EXPECT_EQ(qel_evlog(log, nullptr), nullptr);  // NOLINT(clang-diagnostic-nonnull)
    NULLS(qel_evlog_dump, {-22, -22}, sink, log, 0);
    NULLS(qel_evlog_entry_dump, {}, sink, line, &entry, 0);
    NULLS(qel_evlog_dbInsert, {-22, -22}, &db, log);
    NULLS(qel_evlog_db_dump, {}, sink, &db, 0);
    NULLS(qel_evlog_db_list, {}, sink, &db);
    NULLS(qel_evlog_findByShortCut, {nullptr, nullptr}, &db, "l");
    NULLS(qel_evlog_db_clear, {}, &db);
    NULLS(qel_evlog_clear, {}, log);
    NULLS(qel_evlog_handle_toggleShow, {}, log);
    NULLS(qel_evlog_private_toggleShow, {}, 3, nullptr);
    NULLS(qel_evlog_handle_free, {}, log);
    EXPECT_EQ(qel_evlog_findByShortCut(&db, "l"), log);
    EXPECT_EQ(qel_evlog_free(&db), 0);
    fclose(sink);
}

TEST(Nulls, InTables) {
    hash_table *table = create_hash_table(pid_hash, pid_cmp), *copy = nullptr;
    uintptr_t *values = nullptr, key = reinterpret_cast<uintptr_t>("12345678");
    add_to_hash(1, 2, table);
    NULLS(get_from_hash, {0, 0}, 1, &values, table);
    NULLS(get_header, {nullptr, nullptr}, 1, &table->buckets[1], table);
    NULLS(get_all_headers, {0, 0}, &values, table);
    NULLS(copy_hash_table, {-1, -1}, table, &copy);
    NULLS(ElfHash, {0}, reinterpret_cast<unsigned char *>(key), 8);
    for (auto compare : {name_cmp, wwn_cmp}) {
        EXPECT_EQ(compare(key, key), 1);
        EXPECT_EQ(compare(0, key), 0);
        EXPECT_EQ(compare(key, 0), 0);
    }
    free_hash_handle(table);
}

TEST(Nulls, InMessagesAndTexts) {
    unsigned char bytes[300] = {};
    char text[300] = "a line";
    timeval day{};
    perf_record record;
    auto *out = log_createCompressor(bytes, sizeof bytes);
    auto *in = log_createDecompressor(bytes, sizeof bytes);
    NULLS(log_createCompressor, {nullptr}, bytes, 300);
    NULLS(log_createDecompressor, {nullptr}, bytes, 300);
    NULLS(log_compressLine, {-1, -1}, out, text);
    NULLS(log_decompressGetLine, {-1, -1}, in, text);
    NULLS(log_getCompressorObuf, {nullptr}, out);
    log_deleteCompressor(out);
    log_deleteDecompressor(in);
    qelIpcArg piece{text, 4};
    qelIpcArg missing{nullptr, 4};
    qelIpcArgs args{&piece, 1}, hollow{nullptr, 1}, empty{&piece, 0}, lacking{&missing, 1};
    qelIpcArgBlock *block = nullptr, *reply = nullptr;
    for (qelIpcArgs *wrong : {&hollow, &empty, &lacking})
        EXPECT_EQ(qelIpcArgsEncode(wrong, &block), -22);
    NULLS(qelIpcArgsEncode, {-22, -22}, &args, &block);
    NULLS(qelIpcArgsData, {nullptr}, block);
    NULLS(qelIpcArgsDataLength, {0}, block);
    EXPECT_EQ(qelIpcSendRcv(text, 1, nullptr, &reply, nullptr), -22);
    EXPECT_EQ(qelIpcSendRcv(text, 1, block, nullptr, nullptr), -22);
    NULLS(ipcCbQelDRedirectOutput, {-22, -22}, nullptr, 1, nullptr);
    NULLS(ipcCbQelDExitHandler, {-22, -22}, nullptr, 1, nullptr);
    NULLS(computeIsoChksum, {}, bytes, 4, bytes);
    NULLS(get_ms_time, {0, 0}, &day, text);
    NULLS(perf_init, {}, &record);
    NULLS(semaGive, {-1}, nullptr);
    NULLS(semaSetCount, {}, nullptr, 1);
    support::captured(2, [] { NULLS(stor_pid, {-1}, "null", 1); });
    EXPECT_EQ(bytes[2], 0) << "written behind a field that was none";
}

}  // namespace
