// The common utilities: what a thread's error object keeps, what the stamps promise, where the identity comes from.
#include "cu/kz_cu.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/child.h"
#include "tests/support/sandbox.h"

using error_ptr_t = std::unique_ptr<cu_error_t, decltype(&cu_rel_error_1)>;

static error_ptr_t current_error() {
    cu_error_t *pError = nullptr;
    EXPECT_EQ(cu_get_error_1(&pError), 0);
    return {pError, cu_rel_error_1};
}

static std::string text_of(const char *pText) {
    return pText == nullptr ? "null" : pText;
}

static std::string describe_insert(const cu_error_arg_t &arg) {
    const auto &value = arg.cu_arg_value;
    const bool isText = arg.cu_arg_type == CU_ERROR_ARG_CHAR_STR;
    const std::string byKind[] = {"i" + std::to_string(value.cu_arg_int),
                                  "l" + std::to_string(value.cu_arg_long),
                                  "q" + std::to_string(value.cu_arg_long_long),
                                  "d" + std::to_string(value.cu_arg_double),
                                  "?",
                                  isText ? "s" + text_of(value.cu_arg_char_str) : "",
                                  "p" + std::to_string(reinterpret_cast<uintptr_t>(value.cu_arg_void_ptr))};
    return " " + byKind[arg.cu_arg_type];
}

// Everything in the calling thread's error.
static std::string describe(const error_ptr_t &error = current_error()) {
    std::string text = std::to_string(error->cu_error_id) + " " + text_of(error->cu_ffdc_id) + " " +
                       text_of(error->cu_msg_cat) + " " + std::to_string(error->cu_msg_set) + " " +
                       std::to_string(error->cu_msg_num) + " " + text_of(error->cu_msg_default) + ":";
    for (uint32_t i = 0; i < error->cu_arg_cnt; i++)
        text += describe_insert(error->cu_args[i]);
    return text;
}

template <typename... T> static std::string inserts_of(const char *pFormat, T... values) {
    cu_set_error_1(1, nullptr, nullptr, 1, 1, pFormat, values...);
    return describe().substr(strlen("1 null null 1 1 :") + strlen(pFormat));
}

// The kinds, and that each conversion takes its own values and no others: those behind it would come out wrong.
TEST(ErrorObject, KeepsTheInsertsThatTheDefaultTextAsksFor) {
    static constexpr char unended[3] = {'a', 'b', 'c'};
    static constexpr char *pNone = nullptr;
    EXPECT_EQ(inserts_of("%d %s", -7, "x", 8, 9), " i-7 sx");
    EXPECT_EQ(inserts_of("100%% %i%c%hd%-+ #05.3hhx%o", 1, 'A', 3, 4, 5), " i1 i65 i3 i4 i5");
    EXPECT_EQ(inserts_of("%ld%llX%ju%d", -1L << 40, 1LL << 50, intmax_t{3}, 4),
              " l-1099511627776 q1125899906842624 q3 i4");
    EXPECT_EQ(inserts_of("%f%.2e%-9G%La%d", 0.25, .5, 1., 2.L, 3), " d0.250000 d0.500000 d1.000000 d2.000000 i3");
    EXPECT_EQ(inserts_of("%s|%s|%.3s|%.*s|%.*s", "", pNone, unended, 2, unended, -1, "xyz"), " s snull sabc sab sxyz");
    EXPECT_EQ(inserts_of("%*d%-*.*f%d", 90, 1, 91, 92, 0.5, 3), " i1 d0.500000 i3");
    EXPECT_EQ(inserts_of("%p%ls%d", reinterpret_cast<void *>(16), pNone, 3), " p16 p0 i3");
    EXPECT_EQ(inserts_of("%d %", 1, 2), " i1");
}

static constexpr char NONE[] = "0 null null 0 0 null:";

TEST(ErrorObject, BelongsToItsThreadAndIsCopiedWhole) {
    char text[] = "text";
    EXPECT_EQ(cu_set_error_1(-5, "ffdc", "cat", 2, 3, "%s %d", text, 4), -5);
    text[0] = 'n';
    const std::string wanted = "-5 ffdc cat 2 3 %s %d: stext i4";
    const error_ptr_t first = current_error();
    std::thread([] { EXPECT_EQ(describe(), NONE); }).join();
    EXPECT_EQ(describe(), wanted);
    EXPECT_EQ(cu_set_no_error_1(), 0);
    EXPECT_EQ(describe(), NONE);
    EXPECT_EQ(describe(first), wanted);
}

// Reads the counter many times, now and then after a sleep; the time of day before and after bounds what it may say.
static void check_counter() {
    constexpr int64_t SLACK_NS = 20'000; // stamps keep within 1,000
    const auto time_of_day = [] {
        timespec now;
        cu_get_current_time_1(&now);
        return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
    };
    cu_timeinfo_t base;
    cu_get_procspeed_1(&base);
    EXPECT_TRUE(base.timeinfo1 == 1'000'000'000 && base.timeinfo2 == 0);
    uint64_t last = 0;
    errno = 77;
    for (int round = 0; round < 50'000; round++) {
        if (round % 10'000 == 9'999)
            usleep(3'000);
        cu_compute_base_timeinfo_1(&base);
        const int64_t before = time_of_day();
        uint64_t now = cu_get_ctr_1();
        const int64_t after = time_of_day(), stamp = static_cast<int64_t>(now + base.timeinfo2);
        ASSERT_TRUE(stamp >= before - SLACK_NS && stamp <= after + SLACK_NS) << "round " << round;
        for (int i = 0; i < 100; i++, now = cu_get_ctr_1()) {
            ASSERT_GE(now, last) << "round " << round;
            last = now;
        }
    }
    EXPECT_EQ(errno, 77);
}

TEST(Counter, FollowsTheClockAndNeverGoesBack) {
    std::thread other(check_counter);
    check_counter();
    other.join();
}

static constexpr char CONFIG_PATH[] = "/var/kz/cfg/node.conf";

static void write_config(const std::string &text) {
    std::filesystem::create_directories("/var/kz/cfg");
    std::ofstream(CONFIG_PATH, std::ios::trunc) << text;
}

static void check_cluster_settings() {
    struct row_t {
        const char *pName, *pId, *pNumber; // environment
        std::string file, wanted;
    };
    const std::string longText(600, 'x');
    const row_t rows[] = {
        {"", "", "", "cluster_id = x\ncluster_name = \n", "none"},
        {"north", "id", "-12", "cluster_name = south\ncluster_id = x\nnode_number = 5\n", "north id -12"},
        {"", "", "", "# cluster_name = c\n\tcluster_name\t=  so uth \r\ncluster_name = 2\n", "so uth  0"},
        {"", "", "7 ", "cluster_name = " + longText + "\ncluster_id = i", longText.substr(0, 63) + " i 0"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.file + " -> " + row.wanted);
        (void)setenv("KZ_CU_CLUSTER_NAME", row.pName, 1);
        (void)setenv("KZ_CU_CLUSTER_ID", row.pId, 1);
        (void)setenv("KZ_CU_NODE_NUMBER", row.pNumber, 1);
        write_config(row.file);
        cu_cluster_info_t info = {};
        std::string found = "none";
        if (cu_get_cluster_info_1(&info) != ENOENT)
            found = info.cu_cluster_name + (" " + std::string(info.cu_cluster_ID)) + " " +
                    std::to_string(info.cu_node_number);
        EXPECT_EQ(found, row.wanted);
    }
}

static void check_node_and_group() {
    std::string digits;
    std::ifstream("/etc/machine-id") >> digits; // the first 16 of them are the fallback
    const uint64_t fallback = digits.size() < 16 ? 0 : std::stoull(digits.substr(0, 16), nullptr, 16);
    const std::pair<const char *, uint64_t> rows[] = {{"0x1F", 31}, {"", 99}, {"1x", fallback}};
    write_config("node_id = 99\nadmin_group = no such group\n");
    for (const auto &[pText, wanted] : rows) {
        (void)setenv("KZ_CU_NODE_ID", pText, 1);
        uint64_t nodeId = 0;
        EXPECT_EQ(cu_get_node_id_1(&nodeId), wanted == 0 ? ENOENT : 0) << pText;
        EXPECT_EQ(nodeId, wanted) << pText;
    }
    gid_t group = 12345;
    EXPECT_EQ(cu_getadmin_group_id_1(&group), ENOENT);
    (void)setenv("KZ_CU_ADMIN_GROUP", "root", 1);
    EXPECT_EQ(cu_getadmin_group_id_1(&group), 0);
    EXPECT_EQ(group, 0U);
}

TEST(Identity, ComesFromTheEnvironmentOrElseFromTheFile) {
    const auto body = [] {
        enter_private_machine();
        check_cluster_settings();
        check_node_and_group();
    };
    EXPECT_EQ(run_in_child(body).exitCode, 0);
}
