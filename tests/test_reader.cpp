// Trace files composed byte by byte, read back, and shown by kztrace.
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "reader/decode.h"
#include "reader/message.h"
#include "reader/reader.h"
#include "tests/support/composed.h"
#include "tests/support/tempdir.h"
#include "trace/trace_format.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using namespace std::string_view_literals;
using kind_t = trread::fault_kind_t;

static std::vector<uint32_t> seqs_of(const trread::batch_t &batch) {
    std::vector<uint32_t> seqs;
    for (const auto &record : batch.records)
        seqs.push_back(record.seqNumber);
    return seqs;
}

static trread::trace_file_t open_file(const std::string &path) {
    std::string reason;
    auto file = trread::trace_file_t::open(path, &reason);
    EXPECT_TRUE(file) << reason;
    return std::move(*file);
}

// Two laps' worth of states in which a writer leaves a ring, or is caught in: all are whole.
TEST(Reader, YieldsRecordsInTheOrderOfWriting) {
    struct row_t {
        const char *pName;
        std::vector<piece_t> pieces;
        size_t oldest;
        std::vector<uint32_t> seqs;
    };
    static const row_t rows[] = {
        {"fresh", {{0, 0}}, 0, {}},
        {"one record, free record", {{16, 2, 52}, {0, 4095}}, 1, {2}},
        {"filler", {{1, 10, 32}, {1, 12, 32}, {0, 4095, 60}, {1, 4, 32}, {1, 6, 32}, {0, 8}}, 2, {4, 6, 10, 12}},
        {"newest fills its gap", {{1, 10, 60}, {1, 4, 32}, {1, 6, 32}, {1, 8}}, 1, {4, 6, 8, 10}},
        {"unknown kind", {{1, 2, 32}, {77, 4, 32}, {1, 6, 32}, {0, 4095}}, 3, {2, 6}},
        {"numbers wrap", {{1, 0xfffffffe, 32}, {1, 0, 32}, {0, 4095}}, 2, {0xfffffffe, 0}},
        {"filler numbered 0", {{1, 2, 32}, {0, 4095, 60}, {1, 0xfffffffe, 32}, {0, 0}}, 1, {0xfffffffe, 2}},
        {"taken over", {{1, 8, 32}, {65535, 10, 92}, {1, 4, 32}, {1, 6}}, 1, {4, 6, 8, 10}},
        {"taken over, not yet numbered", {{1, 8, 32}, {65535, 4095, 92}, {1, 4, 32}, {1, 6}}, 1, {4, 6, 8}},
        {"page with a note", {{2, 0, 60}, {1, 2, 32}, {0, 4095}}, 2, {0, 2}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pName);
        const auto image = compose(row.pieces, row.oldest);
        const auto batch = trread::read_image(image);
        EXPECT_EQ(seqs_of(batch), row.seqs);
        EXPECT_EQ(batch.numUnknown, strcmp(row.pName, "unknown kind") == 0 ? 1U : 0U);
        for (const auto &fault : batch.faults)
            ADD_FAILURE() << fault.text;
    }
}

// Each kind of damage is named, and the records before it and those from the front of the ring on are read.
TEST(Reader, YieldsWhatDamageLeaves) {
    // offsets: 200: 10, 232: 12, 264: free, 324: 4, 356: 6, 388: filler 8
    const auto whole = compose({{1, 10, 32}, {1, 12, 32}, {0, 4095, 60}, {1, 4, 32}, {1, 6, 32}, {0, 8}}, 2);
    const auto patch = [](size_t offset, uint32_t value) {
        return [offset, value](image_bytes_t *pImage) { put(pImage, offset, value); };
    };
    const size_t oldest = offsetof(trace_file_header_t, uOldestRecordOffset);
    struct row_t {
        const char *pName;
        std::function<void(image_bytes_t *)> damage;
        kind_t kind;
        uint64_t offset;
        std::vector<uint32_t> seqs;
    };
    const row_t rows[] = {
        {"length 0", patch(356, 0), kind_t::length, 356, {4, 10, 12}},
        {"length wraps", patch(356, 0xffffff38), kind_t::past_end, 356, {4, 10, 12}},
        {"length past the end", patch(388, 3712), kind_t::past_end, 388, {4, 6, 10, 12}},
        {"odd sequence number", patch(364, 7), kind_t::sequence, 356, {4, 10, 12}},
        {"sequence numbers jump", patch(364, 60), kind_t::sequence_gap, 356, {4, 60, 10, 12}},
        {"runs across the oldest", patch(232, 60), kind_t::straddle, 232, {4, 6, 10}},
        {"oldest in the header", patch(oldest, 199), kind_t::oldest_offset, oldest, {4, 6, 10, 12}},
        {"header size too small", patch(20, 227), kind_t::too_short, 20, {}},
        {"newer version", [](image_bytes_t *p) { put(p, 2, uint16_t{6}); }, kind_t::version, 2, {}},
        {"cut in the data area", [](image_bytes_t *p) { p->resize(370); }, kind_t::file_size, 20, {4, 10, 12}},
        {"cut in the header", [](image_bytes_t *p) { p->resize(199); }, kind_t::too_short, 0, {}},
        {"zeroes", [](image_bytes_t *p) { p->assign(FILE_SIZE, std::byte{0}); }, kind_t::data_offset, 8, {}},
    };
    const tempdir_t dir;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pName);
        image_bytes_t image = whole;
        row.damage(&image);
        write_file(dir.file("trace"), image);
        const auto batch = open_file(dir.file("trace")).read_all();
        ASSERT_FALSE(batch.faults.empty());
        EXPECT_TRUE(batch.faults[0].kind == row.kind) << batch.faults[0].text;
        EXPECT_EQ(batch.faults[0].offset, row.offset);
        EXPECT_EQ(seqs_of(batch), row.seqs);
    }
}

// Records before the first start record take base and process from the header, later ones from the start record.
TEST(Reader, AppliesTheTimeBaseInForce) {
    const std::vector<piece_t> pieces = {
        {16, 4, 52, {0, 500, 2000, 0, 1, 0}}, {1, 6, 32}, {19, 8, 56, {0, 600, 500, 0, 2, 0}}, {0, 4095, 60}, {1, 2}};
    std::vector<std::pair<uint32_t, int64_t>> seen;
    const auto image = compose(pieces, 3);
    for (const auto &record : trread::read_image(image).records)
        seen.emplace_back(record.pid, record.time_ns);
    EXPECT_THAT(seen, ElementsAre(std::pair(77, NOON + 2000), std::pair(500, 2 * SECOND + 1),
                                  std::pair(500, 3 * SECOND + 1), std::pair(600, 16 * SECOND + 2)));
}

TEST(Reader, FollowsAndTellsWhatWasLost) {
    struct step_t {
        const char *pName;
        std::vector<piece_t> pieces;
        size_t oldest;
        std::vector<uint32_t> seqs;
        uint32_t numLost = 0;
        bool bRestarted = false;
    };
    static const step_t steps[] = {
        {"first", {{1, 2, 32}, {1, 4, 32}, {0, 4095}}, 2, {2, 4}},
        {"given up", {{1, 2, 32}, {1, 4, 32}, {1, 6, 32}, {65535, 8, 32}, {1, 10, 32}, {0, 4095}}, 5, {6, 8, 10}},
        {"lapped", {{1, 20, 64}, {1, 22, 32}, {0, 4095, 60}, {1, 16, 64}, {0, 18}}, 2, {16, 20, 22}, 2},
        {"new life", {{16, 2, 52}, {1, 4, 32}, {0, 4095}}, 2, {2, 4}, 0, true},
    };
    const tempdir_t dir;
    write_file(dir.file("trace"), compose(steps[0].pieces, steps[0].oldest));
    auto file = open_file(dir.file("trace"));
    for (const auto &step : steps) {
        SCOPED_TRACE(step.pName);
        write_file(dir.file("trace"), compose(step.pieces, step.oldest));
        const auto batch = file.poll();
        EXPECT_EQ(seqs_of(batch), step.seqs);
        EXPECT_EQ(batch.numLost, step.numLost);
        EXPECT_EQ(batch.bRestarted, step.bRestarted);
    }
}

// Formats that go with their inserts, and all the ways in which they may not.
TEST(Message, TakesEachConversionWithItsInsert) {
    using insert_t = trread::error_insert_t;
    const auto ofInt = [](int32_t value) {
        return insert_t{CU_ERROR_ARG_INT, 0xdeadbeef00000000 | static_cast<uint32_t>(value), {}};
    };
    const auto ofLong = [](int64_t value) {
        return insert_t{CU_ERROR_ARG_LONG_LONG, static_cast<uint64_t>(value), {}};
    };
    const auto ofDouble = [](double value) {
        return insert_t{CU_ERROR_ARG_DOUBLE, std::bit_cast<uint64_t>(value), {}};
    };
    const auto ofText = [](std::string_view text) { return insert_t{CU_ERROR_ARG_CHAR_STR, 72, text}; };
    const insert_t noText{CU_ERROR_ARG_CHAR_STR, 0, {}}, unknown{77, 0xabc0, {}};
    struct row_t {
        const char *pFormat;
        std::vector<insert_t> inserts;
        std::string text;
        bool bWhole = true;
    };
    const row_t rows[] = {
        {"100%% of %d%%", {ofInt(-7)}, "100% of -7%"},
        {"%i|%u|%x|%#X|%o", {ofInt(-7), ofInt(-7), ofInt(-1), ofInt(255), ofInt(8)}, "-7|4294967289|ffffffff|0XFF|10"},
        {"%hd|%lld|%c", {ofInt(65537), ofLong(INT64_MIN), ofInt('c')}, "1|-9223372036854775808|c"},
        {"%5.2f|%g", {ofDouble(1.005e1), ofDouble(1e300)}, "10.05|1e+300"},
        {"%-5s|%.1s|%s", {ofText("ab"), ofText("ab"), noText}, "ab   |a|(null)"},
        {"%*d|%.*s|%-*.*f", {ofInt(1), ofText("ab"), ofDouble(1)}, "1|ab|1.000000"},
        {"%d and %s", {ofInt(1)}, "1 and %s", false},
        {"%s|%d|%d|%c", {ofInt(-1), ofText("x\n"), unknown, ofInt(300)}, "<-1>|<x\n>|<0xabc0>|<300>", false},
        {"%d %n %d", {ofInt(1), ofInt(2)}, "1 %n %d", false},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pFormat);
        const auto message = trread::format_message(row.pFormat, row.inserts);
        EXPECT_EQ(message.text, row.text);
        EXPECT_EQ(message.bWhole, row.bWhole);
    }
}

// One record of each kind, and of each kind one whose counts, lengths and offsets leave the record.
TEST(Kztrace, DumpsEveryKindOfRecord) {
    constexpr uint32_t noonLow = NOON & 0xffffffff, noonHigh = NOON >> 32;
    const std::vector<uint32_t> errorWords = {5,   18, 123, 136, 141,        148,        1, 17,     151,
                                              161, 4,  0,   0,   33,         0xdeadbeef, 5, 0,      183,
                                              0,   3,  0,   0,   0x3ff80000, 6,          0, 0xabc0, 0};
    const std::vector<piece_t> pieces = {
        {16, 2, 52, {0, 500, 1000000000, 0, noonLow, noonHigh}},
        {1, 4, 32, {42}},
        {2, 6, 40, {}, "two\nlines"},
        {3, 8, 56, {7, 2, 1, 0xff, 5, 0x04030201, 0x05}},
        {12, 10, 48, {8, 3, 9, 255, 0xffffffff}},
        {13, 12, 44, {9, 1, 0, 0x80000000}},
        {13, 14, 44, {9, 2, 16, 0}},
        {14, 16, 192, errorWords, "func\0file.c\0F1\0kz_tr.cat\0%d of %s: %.1f at %p\n\0a\t\"b\""sv},
        {14, 18, 76, {5, 18, 123, 76, 60, 72, 1, 17, 0, 0, 0x10000001}, "abc"},
        {15, 20, 48, {3, 2, 8}, "a\tb"},
        {17, 22, 44, {1000000000, 0, 0xffffffff, 0xffffffff}},
        {19, 24, 60, {0, 501, 1000000000, 0, noonLow, noonHigh}, "core"},
        {14, 26, 92, {5, 18, 1, 0, 0, 0, 1, 2, 0, 88, 1, 0, 0, 7, 0}, "%s"},
        {65535, 28, 32},
        {0, 4095}};
    const tempdir_t dir;
    const std::string path = dir.file("trace");
    write_file(path, compose(pieces, pieces.size() - 1));
    const auto [text, exitCode] = run("dump " + path);
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(
        text,
        R"(2024-03-01 14:00:00.000002  AB.D  0x00001234  start                  -  pid=500 ticks/s=1000000000 correction=1709294400000000000 ns
2024-03-01 14:00:00.000004  AB.D  0x00001234  id                    42
2024-03-01 14:00:00.000006  AB.D  0x00001234  text                   -  "two\nlines"
2024-03-01 14:00:00.000008  AB.D  0x00001234  data                   7  1 byte: ff |.|, 5 bytes: 01 02 03 04 05 |.....|
2024-03-01 14:00:00.000010  AB.D  0x00001234  values32               8  9, 255 (0xff), -1 (0xffffffff)
2024-03-01 14:00:00.000012  AB.D  0x00001234  values64               9  -9223372036854775808 (0x8000000000000000)
2024-03-01 14:00:00.000014  AB.D  0x00001234  values64               9  16 (0x10) (cut)
2024-03-01 14:00:00.000016  AB.D  0x00001234  error                  5  error=18 message="33 of a\t\"b\": 1.5 at 0xabc0" function="func" file="file.c" line=123 catalogue="kz_tr.cat" set=1 number=17 ffdc="F1"
2024-03-01 14:00:00.000018  AB.D  0x00001234  error                  5  error=18 line=123 set=1 number=17 ffdc="abc" (cut)
2024-03-01 14:00:00.000020  AB.D  0x00001234  texts                  3  "a\tb", ""
2024-03-01 14:00:00.000022  AB.D  0x00001234  calibration            -  ticks/s=1000000000 correction=-1 ns
2024-03-01 14:00:00.000024  AB.D  0x00001234  core-restart           -  pid=501 ticks/s=1000000000 correction=1709294400000000000 ns "core"
2024-03-01 14:00:00.000026  AB.D  0x00001234  error                  5  error=18 message="<7>" line=1 set=1 number=2 default="%s" inserts=[7]
-                           -     -           unfinished
)");
    EXPECT_THAT(run("dump --utc " + path).first, HasSubstr("2024-03-01 12:00:00.000004  AB.D"));
}

// What is shown, what goes wrong and where it is told, and the exit code.
TEST(Kztrace, ShowsFilesAndTellsWhatItCannotRead) {
    const tempdir_t dir;
    const std::string good = dir.file("good"), bad = dir.file("bad"), fifo = dir.file("fifo"), blocks = dir.file("b");
    const auto bytes = "0123456789abcdef\x1b\xff\0\0\0\0\0\0\1\0\0\0|"sv;
    const auto image = compose({{1, 2, 32, {1}}, {1, 4, 32, {1}}, {0, 4095}}, 2);
    auto damaged = image;
    put(&damaged, 232, uint32_t{4});
    write_file(good, image);
    write_file(bad, damaged);
    write_file(blocks, compose({{3, 2, 72, {7, 3, 18}, bytes}, {0, 4095}}, 1));
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    struct row_t {
        std::string arguments;
        int exitCode;
        std::string text;
    };
    const row_t rows[] = {
        {"info " + good, 0, "/opt/bin/tool\\x1b[1m\n"},
        {"info " + good, 0, "UTC+01:00"},
        {"info " + good, 0, "  AB.D                           2\nBy process\n  77                             2\n"},
        {"dump " + good + " " + bad, 1, "==> " + good + " <==\n2024-03-01 14:00:00.000002"},
        {"dump " + bad, 1, "\nkztrace: " + bad + ": the record at offset 232 has the length 4\n"},
        {"dump " + dir.path(), 1, "is a directory without pages and copies"},
        {"info " + fifo, 1, "is a FIFO"},
        {"dump " + dir.file("absent"), 1, "absent: cannot be opened: No such file or directory\n"},
        {"dump " + good + " >/dev/full", 1, "standard output: cannot be written"},
        {"dump " + blocks, 0, " 65 66 |0123456789abcdef| +2, 0 bytes, 1 byte: 7c |||\n"},
        {"dump --hex full " + blocks, 0, "66  |0123456789abcdef|\n      1  00000010  1b ff    "},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.arguments);
        EXPECT_THAT(run(row.arguments), Pair(HasSubstr(row.text), row.exitCode));
    }
}

// What is understood of specifications, where their faults are shown, and what of them stays in force.
TEST(Kztrace, ChecksSpecifications) {
    struct row_t {
        const char *pArguments;
        int exitCode;
        const char *pText;
    };
    static constexpr row_t rows[] = {
        {"levels 'ABCD:(=3'", 1, "\nkztrace: nothing of the text takes effect\n"},
        {"levels 'ABCD:*=3,E:z=257'", 0, "ABCD       .*        3\nE          z         257 (stored as 1)\n"},
        {"map '/tmp/a,ABCD:*;/tmp/b,EF'", 1,
         R"(/tmp/a  ABCD       .*
kztrace: 2625-010 Syntax error in trace specification at offset 2, separator ':' expected.
  /tmp/a,ABCD:*;/tmp/b,EF
                         ^
kztrace: that offset counts from the selections of the file, which begin at offset 21
kztrace: the entries above stay in force, the text from the faulty group on is without effect
)"},
        {"sizes ',abc'", 0,
         "(default trace file)     0     4096\nkztrace: warning: this is no number; the size is 0\n"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.pArguments);
        EXPECT_THAT(run(row.pArguments), Pair(HasSubstr(row.pText), row.exitCode));
    }
}
