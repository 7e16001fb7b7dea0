// What is left of spooled trace files, put together: pages, copies, and what lies beside them.
#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "reader/collection.h"
#include "tests/support/composed.h"
#include "tests/support/tempdir.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
namespace fs = std::filesystem;

// A page as its writer leaves it: the free record behind the pieces.
static image_bytes_t page_of(std::vector<piece_t> pieces, uint8_t state) {
    pieces.push_back({TR_KIND_FREE, TR_SEQ_FREE});
    auto image = compose(pieces, pieces.size() - 1);
    put(&image, offsetof(trace_file_header_t, sp_flags), state);
    return image;
}

static piece_t id_piece(uint32_t id, uint32_t seqNumber, uint64_t timeStamp) {
    return {TR_KIND_ID, seqNumber, 32, {id}, {}, timeStamp};
}

constexpr uint32_t UNFINISHED = 1U << 31;

// The first word of each record's body, marked when the record was not finished.
static std::vector<uint32_t> ids_of(const std::vector<std::string> &paths) {
    trread::collection_t files(paths);
    std::vector<uint32_t> ids;
    while (const auto *pRecord = files.next()) {
        uint32_t id = 0;
        memcpy(&id, pRecord->bytes.data() + TR_HEADER_LENGTH, sizeof(id));
        ids.push_back(pRecord->kind == TR_KIND_RESERVED ? id | UNFINISHED : id);
    }
    for (const auto &source : files.sources())
        for (const auto &fault : source.faults)
            ADD_FAILURE() << source.place.path << ": " << fault.text;
    return ids;
}

TEST(Collection, TellsPagesAndCopiesByTheirNames) {
    struct row_t {
        const char *pPath, *pTraceFile;
        uint32_t page;
        const char *pCopyTime;
    };
    static constexpr row_t rows[] = {
        {"/a.d/b", "b", 0, ""},
        {"/a/b.2.sp.65536.sp", "b.2.sp", 65536, ""},
        {"/a/b.2.sp.2024_03_01_12_00_59.42", "b", 2, "2024_03_01_12_00_59.42"},
        {"b.c.2024_03_01_12_00_59. 7", "b.c", 0, "2024_03_01_12_00_59. 7"},
        {"b.2.sp.save", "b.2.sp.save", 0, ""},
        {"b.02.sp", "b.02.sp", 0, ""},
        {".1.sp", ".1.sp", 0, ""},
        {"b.2024_03_01_12_00_59.7", "b.2024_03_01_12_00_59.7", 0, ""},
        {"b.2024_03_01_12_00-59.42", "b.2024_03_01_12_00-59.42", 0, ""},
        {".2024_03_01_12_00_59.42", ".2024_03_01_12_00_59.42", 0, ""},
    };
    for (const auto &row : rows) {
        const auto place = trread::place_of(row.pPath);
        EXPECT_EQ(place.traceFile, row.pTraceFile);
        EXPECT_EQ(place.page, row.page) << row.pPath;
        EXPECT_EQ(place.copyTime, row.pCopyTime) << row.pPath;
    }
}

// Files whose names say that they belong together, though two processes wrote them; a clock that was set back; a ring
// that came round between two copies; an end that says nothing but that somebody was at it.
TEST(Collection, PutsTogetherWhatIsNotAsUsual) {
    const tempdir_t dir;
    fs::create_directories(dir.file("x/y"));
    const auto at = [](uint64_t second) { return second * SECOND; };
    const auto write = [&dir](const std::string &name, const std::vector<piece_t> &pieces) {
        write_file(dir.file(name), page_of(pieces, TR_READY));
        return dir.file(name);
    };
    const auto one = write("b.1.sp", {id_piece(1, 2, at(10)), id_piece(3, 4, at(30)), id_piece(5, 6, at(50))});
    const auto other = write("x/b.1.sp", {id_piece(2, 2, at(20)), id_piece(4, 4, at(40))});
    EXPECT_THAT(ids_of({one, other}), ElementsAre(1, 2, 3, 4, 5));

    const auto setBack = write("c.1.sp", {id_piece(1, 2, at(90)), id_piece(2, 4, at(20))});
    const auto behind = write("c.2.sp", {id_piece(3, 2, at(91))});
    EXPECT_THAT(ids_of({behind, setBack}), ElementsAre(1, 2, 3));

    const std::vector<piece_t> lap = {id_piece(1, 2, at(1)), id_piece(2, 4, at(2)), id_piece(3, 6, at(3))};
    write("x/y/d.2024_03_01_12_00_00.42", lap);
    const auto ring = compose({id_piece(4, 10, at(4)), {TR_KIND_FREE, TR_SEQ_FREE, 32}, lap[2], {TR_KIND_FREE, 8}}, 1);
    write_file(dir.file("d"), ring);
    EXPECT_THAT(ids_of({dir.file("d"), dir.file("x/y")}), ElementsAre(1, 2, 3, 4));

    // A life of which a part was copied, then all of it, and which is still in its page; a later life in the same page.
    const std::vector<piece_t> life = {id_piece(1, 2, at(1)), id_piece(2, 4, at(2)), id_piece(3, 6, at(2))};
    const auto part = write("f.1.sp.2024_03_01_12_00_09.42", {life[0], {TR_KIND_RESERVED, 4, 32, {2}}});
    const auto all = write("f.1.sp.2024_03_01_12_00_08.42", life);
    const auto stays = write("f.2.sp", {id_piece(4, 2, at(3))}), later = write("f.1.sp", {id_piece(5, 2, at(4))});
    EXPECT_THAT(ids_of({part, stays, later, all}), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_THAT(ids_of({part, stays, later}), ElementsAre(1, 2 | UNFINISHED, 4, 5));

    EXPECT_THAT(ids_of({write("e", {{TR_KIND_RESERVED, 2, 32}}), one}), ElementsAre(1, 3, 5, UNFINISHED));
}

// The command line: what is merged, what has a heading, what is passed over, and what is told of each file.
TEST(Kztrace, ShowsASpooledTraceFile) {
    const tempdir_t dir;
    const std::string base = dir.file("b"), spool = dir.file("spool"), lone = dir.file("lone");
    const std::string copy = spool + "/node/b.1.sp.2024_03_01_13_00_00. 7";
    fs::create_directories(spool + "/node");
    write_file(base, page_of({id_piece(1, 2, 1000)}, TR_NOT_A_PAGE));
    write_file(base + ".1.sp", page_of({id_piece(5, 2, 5000)}, TR_ACTIVE));
    write_file(base + ".2.sp", page_of({id_piece(4, 2, 4000)}, TR_READY));
    write_file(copy, page_of({id_piece(2, 2, 2000), id_piece(3, 4, 3000)}, TR_COPYING));
    fs::copy_file(base + ".2.sp", spool + "/b.2.sp.2024_03_01_13_00_01.42");
    write_file(base + ".2.sp.save", image_bytes_t(10));
    write_file(spool + "/README", image_bytes_t(10));
    write_file(lone, page_of({id_piece(9, 2, 1500)}, TR_NOT_A_PAGE));
    const auto lines = [](const std::vector<int> &ids) {
        std::string text;
        for (const int id : ids)
            text += "2024-03-01 14:00:00.00000" + std::to_string(id == 9 ? 1 : id) +
                    "  AB.D  0x00001234  id                     " + std::to_string(id) + "\n";
        return text;
    };
    EXPECT_THAT(run("dump " + base), Pair(lines({1, 4, 5}), 0));
    EXPECT_THAT(run("dump " + base + " " + spool), Pair(lines({1, 2, 3, 4, 5}), 0));
    EXPECT_THAT(run("dump " + spool + " " + lone), Pair(lines({9, 2, 3, 4}), 0));
    EXPECT_THAT(run("dump '" + copy + "'"), Pair(lines({2, 3}), 0));
    EXPECT_THAT(run("dump " + lone + " " + lone),
                Pair("==> " + lone + " <==\n" + lines({9}) + "\n==> " + lone + " <==\n" + lines({9}), 0));
    EXPECT_THAT(run("dump --merge " + lone + " " + lone), Pair(lines({9}), 0));
    const std::string row = "  2024-03-01 14:00:00.00000";
    EXPECT_THAT(run("info " + base + " " + spool + " " + base + ".1.sp").first,
                HasSubstr("\n-              4096         1" + row + "1" + row + "1  " + base + "\n" +    //
                          "active         4096         1" + row + "5" + row + "5  " + base + ".1.sp\n" + //
                          "ready          4096         1" + row + "4" + row + "4  " + base + ".2.sp\n" + //
                          "copy           4096         2" + row + "2" + row + "3  " + copy + "\n" +      //
                          "copy           4096         1" + row + "4" + row + "4  " + spool +
                          "/b.2.sp.2024_03_01_13_00_01.42\nRecords: 5\n"));
    fs::resize_file(copy, 250); // in its second record
    EXPECT_THAT(run("dump " + base + " " + spool),
                Pair(HasSubstr(lines({1, 2, 4, 5}) + "kztrace: " + copy + ": the file has 250 bytes"), 1));
}
