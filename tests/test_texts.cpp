// Records of texts, data blocks and error objects: their bytes, how they are cut, what is refused, and that they hold
// together when the caller's texts change under them.
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <fstream>
#include <numeric>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/tracing.h"

using namespace std::string_literals;
using Texts = Tracing;
using Errors = Tracing;

static constexpr uint32_t ALL = UINT32_MAX;
static const char *volatile pNone = nullptr; // where the compiler would know better
static const char *pBad = "%ls";             // fails with the argument L"\xd800"

// The bytes of words.
static std::string words(std::initializer_list<uint32_t> values) {
    return {reinterpret_cast<const char *>(values.begin()), values.size() * sizeof(uint32_t)};
}

// Makes a record by a call that returns 0, with "x" where nothing is written. Returns its kind and what follows its
// header; nothing when none was made.
static std::string made(const trace_anchor_t *pAnchor, const std::function<int32_t()> &call) {
    char *const pRec = reinterpret_cast<char *>(pAnchor->pNextFree);
    memset(pRec + TR_HEADER_LENGTH, 'x', 2000);
    errno = 77;
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(errno, 77);
    trace_record_header_t head;
    memcpy(&head, pRec, sizeof head);
    return reinterpret_cast<char *>(pAnchor->pNextFree) == pRec
               ? ""
               : std::to_string(head.function) + ":" +
                     std::string(pRec + TR_HEADER_LENGTH, head.length - TR_HEADER_LENGTH);
}

TEST_F(Texts, AreLaidOutByteByByte) {
    in_child([&] {
        const tr_file_token_t other = token_of(dir.file("other"));
        ASSERT_EQ(start(path), 0);
        const std::string one = "15:" + words({ALL, 1, 4}) + "abc\0"s, two = "15:" + words({7, 2, 5}) + "a\0bb\0xxx"s,
                          data = "3:" + words({7, 1, 5}) + "a\0b\0cxxx"s;
        EXPECT_EQ(made(&anchors, [] { return tr_record_string_1("A", "abc"); }), one);
        EXPECT_EQ(made(&anchors, [] { return tr_record_fmt_string_1("A", ALL, "a%s", "bc"); }), one);
        EXPECT_EQ(made(other, [&] { return tr_ms_record_fmt_string_1("A", ALL, other, "a%s", "bc"); }), one);
        EXPECT_EQ(made(other, [&] { return tr_ms_record_strings_1("A", 7, other, 2, "a", "bb"); }), two);
        EXPECT_EQ(made(&anchors, [] { return tr_record_data_1("A", 7, 1, "a\0b\0c", 5); }), data);
        std::string bytes(150, '\0');
        std::iota(bytes.begin(), bytes.end(), '\x01');
        for (uint32_t length = 1; length < bytes.size(); length++) {
            const std::string text = bytes.substr(0, length), pad(3 - length % 4, 'x'), blockPad(-length % 4, 'x');
            EXPECT_EQ(made(&anchors, [&] { return tr_record_string_1("A", text.c_str()); }),
                      "15:" + words({ALL, 1, length + 1}) + text + '\0' + pad);
            EXPECT_EQ(made(&anchors, [&] { return tr_record_data_1("A", 7, 1, text.data(), length); }),
                      "3:" + words({7, 1, length}) + text + blockPad);
        }
    });
}

// A format that most calls have, and one that is left to vsnprintf, give the same text: what vsnprintf makes of it.
TEST_F(Texts, AreFormattedLikePrintf) {
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        const auto check = [](const char *pFormat, auto... values) {
            char wanted[1024];
            (void)snprintf(wanted, sizeof wanted, pFormat, values...);
            const auto length = static_cast<uint32_t>(strlen(wanted));
            EXPECT_EQ(made(&anchors, [&] { return tr_record_fmt_string_1("A", 7, pFormat, values...); }),
                      "15:" + words({7, 1, length + 1}) + wanted + '\0' + std::string(3 - length % 4, 'x'))
                << pFormat << length;
        };
        for (const int value : {0, 7, -1, 123456, INT_MAX, INT_MIN}) {
            const auto number = static_cast<unsigned>(value);
            check("%d %u%x|%s", value, number, number, "text");
            check("%d %u%x|%5s", value, number, number, "text");
        }
        for (const long value : {0L, -1L, LONG_MAX, LONG_MIN}) {
            const auto number = static_cast<unsigned long>(value);
            check("%ld<%lu>%lx%s", value, number, number, "");
            check("%ld<%lu>%lx%%", value, number, number);
        }
        check("%s", pNone);
        for (size_t length = 1014; length < 1026; length++) { // the buffer ends in any of the pieces
            const std::string text(length, 't');
            check("%s%d", text.c_str(), 1234567);
            check("%d%s.", 1234567, text.c_str());
            check((text + "%u").c_str(), 12U);
        }
    });
}

TEST_F(Texts, AreCutWhereTheFileOrTheBufferEnds) {
    in_child([&] {
        const std::string b(1003, 'b'), c(2000, 'c'), rest(903, 'c');
        const auto strings = [&](uint32_t number, const std::string &first, const char *pSecond) {
            return made(&anchors, [&] { return tr_record_strings_1("A", 7, number, first.c_str(), pSecond, pNone); });
        };
        const auto blocks = [&](uint32_t number, uint32_t first, uint32_t second) {
            return made(&anchors,
                        [&] { return tr_record_data_1("A", 7, number, c.data(), first, c.data(), second, pNone, 1); });
        };
        const auto formatted = [](const std::string &text) {
            return made(&anchors, [&] { return tr_record_fmt_string_1("A", 7, "%s", text.c_str()); });
        };
        ASSERT_EQ(start(path), 0);
        anchors.uMaxSize = 1948;
        EXPECT_EQ(strings(2, b, rest.c_str()), "15:" + words({7, 2, 1908}) + b + '\0' + rest + '\0');
        EXPECT_EQ(strings(3, b, c.c_str()), "15:" + words({7, 1, 1004}) + b + '\0');
        EXPECT_EQ(strings(2, c, pNone), "15:" + words({7, 0, 0}));
        EXPECT_EQ(blocks(2, 1904, 0), "3:" + words({7, 2, 1904}) + c.substr(0, 1904) + words({0}));
        EXPECT_EQ(blocks(3, 1904, 1), "3:" + words({7, 1, 1904}) + c.substr(0, 1904));
        EXPECT_EQ(formatted(c), "15:" + words({7, 1, 1024}) + c.substr(0, 1023) + '\0');
        anchors.uMaxSize = 100;
        EXPECT_EQ(formatted(b), "15:" + words({7, 1, 60}) + b.substr(0, 59) + '\0');
    });
}

// Nothing is recorded, and neither the thread's error nor its errno changes.
TEST_F(Texts, AreRefusedInTheOrderOfTheChecks) {
    struct row_t {
        int32_t started, stopped; // what the call returns then
        std::function<int32_t(const char *)> call;
    };
    cu_error_t noError = {}, *pNoError = &noError;
    const row_t rows[] = {
        {34, 34, [](const char *p) { return tr_record_strings_1(p, 1, 0); }},
        {27, 27, [](const char *p) { return tr_record_string_1(p, nullptr); }},
        {27, 0, [](const char *p) { return tr_record_strings_1(p, 1, 3, "a", "bb", ""); }},
        {33, 33, [](const char *p) { return tr_record_printf_1(p, pNone, 1); }},
        {28, 0, [](const char *p) { return tr_record_printf_1(p, pBad, L"\xd800"); }},
        {29, 29, [](const char *p) { return tr_record_data_1(p, 1, 129); }},
        {30, 0, [](const char *p) { return tr_record_data_1(p, 1, 2, "a", 1, pNone, -1); }},
        {31, 0, [](const char *p) { return tr_record_data_1(p, 1, 2, "a", -1, pNone, 1); }},
        {0, 0, [&](const char *p) { return tr_record_error_1(p, 1, "f", 1, "f", &pNoError); }},
    };
    in_child([&] {
        const auto check = [&](const char *pCompId, int32_t row_t::*pCode, int32_t code) {
            for (const auto &row : rows) {
                errno = 77;
                EXPECT_EQ(row.call(pCompId), pCode != nullptr ? row.*pCode : code) << &row - rows;
                EXPECT_EQ(errno, 77) << &row - rows;
            }
        };
        ASSERT_EQ(start(path), 0);
        (void)cu_set_error_1(5, nullptr, nullptr, 6, 7, nullptr);
        check("A", &row_t::started, 0);
        check(nullptr, nullptr, 2);
        EXPECT_EQ(chain(view_t(path)), "52/16/2 65284/0/4095 @252");
        EXPECT_EQ(last_error(), "5 7");
        EXPECT_EQ(tr_set_filename_1(nullptr), 0);
        check("A", &row_t::stopped, 0);
        global_stop_trace();
        check(nullptr, nullptr, 0);
    });
}

TEST_F(Errors, AreLaidOutByteByByte) {
    char ffdc[] = "id", catalogue[] = "cat", message[] = "d%s", xy[] = "xy";
    cu_error_arg_t args[] = {{CU_ERROR_ARG_INT, {.cu_arg_long_long = 7}},
                             {CU_ERROR_ARG_CHAR_STR, {.cu_arg_char_str = xy}},
                             {CU_ERROR_ARG_CHAR_STR, {.cu_arg_char_str = nullptr}},
                             {CU_ERROR_ARG_VOID_PTR, {.cu_arg_long_long = 0x123456789}}};
    cu_error_t few = {5, nullptr, nullptr, 8, 9, nullptr, 2, args}, *pFew = &few;
    cu_error_t all = {-1, ffdc, catalogue, 8, 9, message, 3, args + 1}, *pAll = &all;
    in_child([&] {
        const tr_file_token_t other = token_of(dir.file("other"));
        ASSERT_EQ(start(path), 0);
        EXPECT_EQ(made(&anchors, [&] { return tr_record_error_1("A", 3, "f", 12, nullptr, &pFew); }),
                  "14:" + words({3, 5, 12, 104, 0, 0, 8, 9, 0, 0, 2, 0}) + "xxxx" + words({7, 0, 5}) + "xxxx" +
                      words({106, 0}) + "f\0xy\0xxx"s);
        EXPECT_EQ(made(other, [&] { return tr_ms_record_error_1("A", 3, other, "f", 12, "g.c", &pAll); }),
                  "14:" + words({3, ALL, 12, 120, 122, 126, 8, 9, 129, 133, 3, 5}) + "xxxx" + words({137, 0, 5}) +
                      "xxxx" + words({0, 0, 6}) + "xxxx" + words({0x23456789, 1}) + "f\0g.c\0id\0cat\0d%s\0xy\0"s);
    });
}

TEST_F(Errors, AreTakenFromTheThreadAndHandedBack) {
    in_child([&] {
        cu_error_t *pError = nullptr;
        // The result: the record's kind, and the code of the object that the caller owns now, if any.
        const auto check = [&](const char *pResult, cu_error_t **ppError, const char *pCompId = "A", int32_t rc = 0) {
            const auto call = [&] { return tr_record_error_1(pCompId, 3, nullptr, 0, nullptr, ppError) - rc; };
            const std::string kind = made(&anchors, call).substr(0, 3);
            EXPECT_EQ(kind + (pError != nullptr ? std::to_string(pError->cu_error_id) : ""), pResult);
            cu_rel_error_1(std::exchange(pError, nullptr));
        };
        ASSERT_EQ(start(path), 0);
        check("", nullptr);
        check("0", &pError);
        (void)cu_set_error_1(5, nullptr, nullptr, 6, 7, "%s", "text");
        check("14:", nullptr);
        check("14:5", &pError);
        check("", &pError, nullptr, 2);
        EXPECT_EQ(last_error(), "5 7 text");
        global_stop_trace();
        check("", &pError);
    });
}

// The text grows after it was measured, while the recorder waits for the lock.
TEST_F(Texts, DoNotOutgrowTheirRecords) {
    std::ofstream(dir.file("text")) << "abc" << '\0' << std::string(997, 'y');
    const view_t text(dir.file("text")), growing(dir.file("text"));
    cu_error_t error = {5, nullptr, nullptr, 8, 9, nullptr, 0, nullptr}, *pError = &error;
    const std::function<int32_t()> calls[] = {
        [&] { return tr_record_strings_1("A", 1, 2, text.pBytes, "next"); },
        [&] { return tr_record_error_1("A", 1, text.pBytes, 12, "next", &pError); }};
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        for (const auto &call : calls) {
            std::atomic<pid_t> tid = 0;
            pthread_mutex_lock(&anchors.anchorMutex);
            std::thread recorder([&] {
                tid = static_cast<pid_t>(syscall(SYS_gettid));
                EXPECT_EQ(call(), 0);
            });
            for (std::string name, state; state != "S"; std::this_thread::yield()) // sleeps, thus waits
                std::ifstream("/proc/self/task/" + std::to_string(tid) + "/stat") >> name >> name >> state;
            growing.put(3, 'y', 1);
            pthread_mutex_unlock(&anchors.anchorMutex);
            recorder.join();
            growing.put(3, 0, 1);
        }
        const view_t file(path);
        EXPECT_EQ(chain(file), "52/16/2 52/15/4 84/14/6 65148/0/4095 @388");
        EXPECT_EQ(std::string(file.pBytes + 292, 9), "abc\0next\0"s);
        EXPECT_EQ(std::string(file.pBytes + 304 + 72, 12), "abcyyyyyyyy\0"s);
        EXPECT_EQ(std::string(file.pBytes + 388, 1000).find("yy"), std::string::npos); // still free
    });
}
