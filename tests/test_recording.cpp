// What programs call: recording functions and what they store, the registry of components, and how the library begins
// and ends in a process.
#include <syslog.h>

#include <algorithm>
#include <cstdarg>
#include <set>
#include <span>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "reader/reader.h"
#include "tests/support/tracing.h"

using testing::ElementsAre;
using Recording = Tracing;
using Registry = Tracing;
using Library = Tracing;

// ---- Records ----

static constexpr uint32_t ALL = UINT32_MAX;
static constexpr int64_t BIG = int64_t{1} << 33;
static tr_file_token_t otherToken; // of a file that is not the default one

// Calls every function. Returns the results.
static std::set<int32_t> record_all(const char *p) {
    return {tr_record_id_1(p, ALL),
            tr_ms_record_id_1(p, 8, nullptr),
            tr_record_values_32_1(p, 2, 0),
            tr_record_values_32_1(p, 2, 3, -1, 1U << 31, 5),
            tr_ms_record_values_32_1(p, 3, nullptr, 1, 7),
            tr_record_int32_1(p, 1, -2),
            tr_record_int32_2_1(p, 1, -2, 3),
            tr_record_uint32_1(p, 1, ALL),
            tr_record_uint32_2_1(p, 1, 2, ALL),
            tr_record_values_64_1(p, 2, 0),
            tr_record_values_64_1(p, 4, 3, -BIG, int64_t{6}, BIG),
            tr_ms_record_values_64_1(p, 5, nullptr, 1, BIG),
            tr_record_int64_1(p, 1, -BIG),
            tr_record_int64_2_1(p, 1, 3, -BIG),
            tr_record_uint64_1(p, 1, UINT64_MAX),
            tr_record_uint64_2_1(p, 1, 1ULL << 32, 2),
            tr_ms_record_id_1(p, 9, otherToken),
            tr_ms_record_values_32_1(p, 3, otherToken, 3, 7, 8, -9),
            tr_ms_record_values_64_1(p, 5, otherToken, 2, BIG, -BIG)};
}

// "kind:words" of every record but the start record; the words are those from offset 28 on. All have the identifier.
static std::string bodies(const std::string &path, std::string compId) {
    compId.resize(TR_COMP_ID_SIZE);
    std::string text, reason;
    const auto batch = trread::trace_file_t::open(path, &reason).value().read_all();
    EXPECT_TRUE(batch.faults.empty()) << batch.faults[0].text;
    for (const auto &record : std::span(batch.records).subspan(1)) {
        EXPECT_EQ(std::string(record.compId.data(), record.compId.size()), compId);
        text += std::to_string(record.kind) + ":";
        for (size_t offset = TR_HEADER_LENGTH; offset < record.bytes.size(); offset += 4) {
            int32_t word = 0;
            memcpy(&word, &record.bytes[offset], 4);
            text += std::to_string(word) + (offset + 4 < record.bytes.size() ? "," : " ");
        }
    }
    return text;
}

// Stamps come from a copy of the counter, which keeps to it through readings of the clock and pauses without.
TEST_F(Recording, StampsByTheCounter) {
    constexpr uint64_t SLACK_NS = 20'000; // a microsecond or two
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        uint64_t last = 0;
        for (uint32_t round = 0; round < 1000; round++) {
            usleep(round % 10 == 0 ? 1200 : 0);
            const auto *const pRec = reinterpret_cast<trace_record_header_t *>(anchors.pNextFree);
            const uint64_t before = cu_get_ctr_1();
            EXPECT_EQ(tr_record_id_1("ABCD", round), 0);
            const uint64_t after = cu_get_ctr_1(), stamp = pRec->timeStamp;
            ASSERT_TRUE(before - SLACK_NS <= stamp && stamp <= after + SLACK_NS) << round << ": " << stamp - before;
            ASSERT_GE(stamp, last) << round;
            last = stamp;
        }
    });
}

TEST_F(Recording, StoresWhatTheCallSays) {
    const std::string other = dir.file("other");
    in_child([&] {
        otherToken = token_of(other);
        EXPECT_EQ(record_all("ABCD"), std::set{0}); // not started yet
        ASSERT_EQ(start(path), 0);
        EXPECT_EQ(record_all(nullptr), std::set{2});
        EXPECT_EQ(record_all(""), std::set{2});
        EXPECT_EQ(last_error(), "0 0");
        memset(anchors.pNextFree + TR_HEADER_LENGTH, 'x', 2000); // what a short identifier does not cover is cleared
        EXPECT_EQ(record_all("AB"), std::set{0});
        global_stop_trace();
        EXPECT_EQ(record_all("ABCD"), std::set{0});
        EXPECT_EQ(record_all(nullptr), std::set{0});
    });
    EXPECT_EQ(bodies(path, "AB"),
              "1:-1 1:8 12:2,0 12:2,3,-1,-2147483648,5 12:3,1,7 12:1,1,-2 12:1,2,-2,3 12:1,1,-1 12:1,2,2,-1 13:2,0 "
              "13:4,3,0,-2,6,0,0,2 13:5,1,0,2 13:1,1,0,-2 13:1,2,3,0,0,-2 13:1,1,-1,-1 13:1,2,0,1,2,0 ");
    EXPECT_EQ(bodies(other, "AB"), "1:9 12:3,3,7,8,-9 13:5,2,0,2,0,-2 ");
}

TEST_F(Recording, CutsValuesAndReadsOnlyWhatItStores) {
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        anchors.uMaxSize = 52;
        EXPECT_EQ(tr_record_values_32_1("V", 9, ALL, 1, 2, 3, 4) + tr_record_values_64_1("V", 9, ALL, BIG, -BIG), 0);
    });
    EXPECT_EQ(bodies(path, "V"), "12:9,4,1,2,3,4 13:9,2,0,2,0,-2 ");
}

// ---- Registry ----

// The checks in their order: what is wrong in several ways is refused for the first. A refusal changes nothing.
TEST_F(Registry, RefusesBadArguments) {
    static tr_detail_level_t levels[2] = {7, 7};
    const auto check = [](const std::string &error, const char *pCompId, tr_detail_level_t *pLevels, uint32_t number,
                          std::initializer_list<tr_category_description_t> categories) {
        EXPECT_EQ(
            tr_register_component_1(pCompId, pLevels, categories.size() == 0 ? nullptr : categories.begin(), number),
            std::stoi(error));
        EXPECT_EQ(last_error(), error);
    };
    in_child([&] {
        ASSERT_EQ(register_one("ABCDE"), 0);
        check("1 1", "NEW", levels, 256, {{0, "one", 0, 0}});
        check("2 2", "", levels, 1, {{0, "one", 0, 0}});
        check("3 3", "ABCD", nullptr, 1, {});
        check("4 4", "ABCD", nullptr, 1, {{9, "", 0, 0}});
        check("38 39", "ABCDX", levels, 1, {{9, "", 0, 0}});
        check("5 5 1", "NEW", levels, 2, {{0, "one", 0, 0}, {9, nullptr, 256, 256}});
        check("6 6 one", "NEW", levels, 2, {{2, "one", 256, 256}, {1, nullptr, 0, 0}});
        check("7 7 two", "NEW", levels, 2, {{1, "one", 255, 255}, {1, "two", 256, 256}});
        check("8 8 one", "NEW", levels, 2, {{0, "one", 255, 256}, {2, "two", 0, 0}});
        EXPECT_THAT(levels, ElementsAre(7, 7));
        EXPECT_EQ(anchors.pFirstComp->pNext, nullptr);
        check("0 0", "ABC", levels, 2, {{1, "one", 255, 255}, {0, "two", 0, 0}}); // levels go by position
        EXPECT_THAT(levels, ElementsAre(255, 0));
        EXPECT_EQ(tr_unregister_component_1(""), 2);
        EXPECT_EQ(tr_unregister_component_1("AB"), 26);
        EXPECT_EQ(last_error(), "26 26 AB");
        EXPECT_EQ(__tr_unregister_component_1("ABCDX"), 0); // four characters count
        EXPECT_EQ(last_error(), "0 0");
    });
}

TEST_F(Registry, Takes255CategoriesAndStopsTheFilesWithTheLastThatRecords) {
    in_child([&] {
        std::vector<tr_category_description_t> categories(255, {254, "category", 0, 1});
        std::vector<tr_detail_level_t> levels(256, 7);
        tr_file_token_t *pTokens = nullptr;
        trace_anchor_t *const other = token_of(dir.file("other"));
        ASSERT_EQ(start(path), 0);
        ASSERT_EQ(tr_ms_register_component_1("NEXT", levels.data(), categories.data(), 255, &pTokens), 0);
        EXPECT_EQ(std::count(pTokens, pTokens + 255, nullptr), 255);
        EXPECT_EQ(std::count(levels.begin(), levels.end(), 1), 255);
        EXPECT_EQ(tr_unregister_component_1("ABCD"), 0);
        EXPECT_EQ(level_of_one, 0);
        EXPECT_TRUE(anchors.pMap != nullptr && other->pMap != nullptr);
        EXPECT_EQ(tr_unregister_component_1("NEXT"), 0);
        EXPECT_EQ(std::count(levels.begin(), levels.end(), 0), 255);
        EXPECT_TRUE(anchors.pMap == nullptr && other->pMap == nullptr);
    });
}

// ---- The library in its process ----

static std::string logged; // what was told the system log, up to the name of a trace file

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the C library's names are not for programs
extern "C" void openlog(const char *pIdent, int options, int facility) {
    EXPECT_TRUE(strcmp(pIdent, "zorv_trace") == 0 && (options & LOG_PID) != 0 && facility == LOG_DAEMON);
}
extern "C" void vsyslog(int priority, const char *pFormat, va_list values) {
    char text[512];
    (void)vsnprintf(text, sizeof text, pFormat, values);
    EXPECT_EQ(priority, LOG_WARNING);
    if (strstr(text, "/kz_test_") != nullptr) // what comes behind the name differs from run to run
        logged += std::string(text, strcspn(text, "/")) + "|";
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)

TEST_F(Library, TellsTheSystemLogAsMuchAsTheDebugLevelSays) {
    for (const std::string level : {"0x8", "7", ""}) {
        in_child([&] {
            (void)setenv("KZ_TR_DEBUG_LEVEL", level.c_str(), 1);
            ASSERT_EQ(start(path), 0);
            EXPECT_EQ(tr_unregister_component_1("ABCD"), 0);
            EXPECT_EQ(
                logged,
                level != "0x8"
                    ? ""
                    : ">>start_trace enter for |\ttrace: uSize(65536) != statData.st_size(0) for |\ttrace: reInit for |"
                      "\ttrace: reInit block for | +++ |<<start_trace exit for |*** stop_trace for |"
                      "**@ stop_trace_page enter for |stop_trace_page leaving for |");
        });
    }
}

TEST_F(Library, RecordsNothingInAForkedChild) {
    in_child([&]() TR_UNCHECKED {
        ASSERT_EQ(start(path), 0);
        const view_t file(path);
        const std::string before(file.pBytes, file.size);
        in_child([&] {
            EXPECT_NE(master_override_off(), 0);
            EXPECT_EQ(record_all("ABCD"), std::set{0});
            EXPECT_EQ(register_one("NEXT"), 0);
            tr_term();
            exit(0);
        });
        ASSERT_EQ(lockGlobalMutex(), 0); // as if by another thread, which the child does not have
        in_child([] {
            EXPECT_EQ(register_one("NEXT"), 9);
            EXPECT_EQ(last_error(), "9 9 " + std::to_string(ETIMEDOUT));
            exit(0);
        });
        (void)unlockGlobalMutex();
        EXPECT_TRUE(std::string(file.pBytes, file.size) == before);
    });
}

TEST_F(Library, EndsWithTheProcessOrBefore) {
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        view_t(path).put(4, 0x8000, 2);
        exit(0);
    });
    EXPECT_EQ(view_t(path).get(4, 2), 0U); // the stop takes a request back
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        EXPECT_EQ(register_one("ABCD"), 38);
        tr_term();
        EXPECT_STREQ(anchors.fileName, "");
        EXPECT_EQ(tr_unregister_component_1("ABCD"), 9);
        EXPECT_EQ(last_error(), "38 39"); // as it was
        EXPECT_EQ(record_all(nullptr), std::set{0});
        // The library begins anew, but stays switched off.
        EXPECT_EQ(register_one("ABCD"), 0);
        EXPECT_EQ(record_all("ABCD"), std::set{0});
        EXPECT_EQ(tr_flush_1(), 0);
        __tr_term();
        __tr_term();
        exit(0);
    });
    EXPECT_EQ(chain(view_t(path)), "52/16/2 52/16/4 65232/0/4095 @304");
}
