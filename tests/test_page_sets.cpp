// Page sets: built from an entry, switched when a page is full, and what goes wrong with them. Nothing is copied here: the
// copy thread is kept from starting, so that the states of pages stand still.
#include <pthread.h>
#include <sys/resource.h>

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/tracing.h"
#include "trace/engine/page_set.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

extern "C" int __real_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *);
extern "C" int __wrap_pthread_create(pthread_t *, const pthread_attr_t *, void *(*)(void *), void *) {
    return EAGAIN;
}

class PageSets : public Tracing {
  protected:
    std::string page(int number, const std::string &base) const {
        return base + "." + std::to_string(number) + ".sp";
    }
    std::string page(int number) const {
        return page(number, path);
    }
    // Has every file in the directory kept in so many pages.
    void keep_in_pages(const char *pPages) const {
        (void)setenv("KZ_TR_SPOOL", (dir.path() + "/.*:ON:" + pPages + ":" + dir.file("spool")).c_str(), 1);
    }
    // The states of the pages, in the order of their numbers.
    std::string states(const std::string &base) const {
        std::string text;
        for (int i = 1; fs::exists(page(i, base)); i++)
            text += std::to_string(view_t(page(i, base)).get(192, 1)) + " ";
        return text;
    }
    static void record(uint32_t count, tr_file_token_t token = nullptr) {
        for (uint32_t i = 0; i < count; i++)
            EXPECT_EQ(tr_ms_record_values_32_1("ABCD", 7, token, 2, i, i), 0); // 44 bytes
    }
};

TEST_F(PageSets, FillOnePageAfterTheOther) {
    keep_in_pages("4");
    constexpr uint32_t EXACT = 366; // records of 44 bytes that fill a page to its very end, behind the start record
    in_child([&] {
        ASSERT_EQ(start(path), 0);
        EXPECT_EQ(states(path), "1 4 4 4 ");
        EXPECT_EQ(fs::file_size(page(4)), 16384U);
        EXPECT_EQ(chain(view_t(page(1))), "52/16/2 16132/0/4095 @252");
        EXPECT_EQ(chain(view_t(page(2))), "16184/0/0 @200");
        record(EXACT);
        EXPECT_THAT(chain(view_t(page(1))), HasSubstr("72/12/734 @200"));
        EXPECT_EQ(states(path), "1 4 4 4 ");
    });
    in_child([&] { // goes on where the process before it was
        ASSERT_EQ(start(path), 0);
        EXPECT_EQ(states(path), "2 1 4 4 "); // the start record had no room in the page that was the active one
        EXPECT_THAT(chain(view_t(page(1))), HasSubstr("72/12/734 @200"));
        EXPECT_EQ(chain(view_t(page(2))), "52/16/2 16132/0/4095 @252");
        record(EXACT + 1);
        EXPECT_EQ(states(path), "2 2 1 4 ");
        EXPECT_EQ(chain(view_t(page(3))), "44/12/2 16140/0/4095 @244");
    });
}

TEST_F(PageSets, TakePagesBackWithANote) {
    keep_in_pages("2");
    std::string longName = dir.path();
    for (int i = 0; i < 8; i++)
        longName += "/" + std::string(250, 'n');
    fs::create_directories(longName);
    longName += "/trace";
    in_child([&] {
        ASSERT_EQ(start(path, "16384"), 0);
        const view_t first(page(1));
        for (int round = 1; round <= 2; round++) {
            while (states(path) != "2 1 ")
                record(1);
            while (states(path) != "1 2 ")
                record(1);
            const std::string note =
                "SPOOL: " + page(1) + " not spooled " + std::to_string(round) + " consecutive time";
            EXPECT_EQ(std::string(first.pBytes + 228), note + (round > 1 ? "s" : ""));
            EXPECT_EQ(first.get(204, 2), uint32_t{TR_KIND_STRING});
            EXPECT_EQ(first.get(208), 0U);
            EXPECT_NE(first.get(188), 0U);
            EXPECT_THAT(chain(first), HasSubstr("44/12/2 ")); // behind the note
            EXPECT_EQ(anchors.consecutiveSpoolNotCopied, static_cast<uint32_t>(round));
        }
    });
    in_child([&] { // a page with no room for its note besides the longest record goes without it
        ASSERT_EQ(start(longName, "8192"), 0);
        const std::string data(1948 - 60, 'd');
        while (anchors.consecutiveSpoolNotCopied == 0)
            EXPECT_EQ(tr_record_string_1("ABCD", data.c_str()), 0);
        EXPECT_THAT(chain(view_t(page(1, longName))), testing::StartsWith("1932/15/2 "));
    });
}

// What was asked for can't be had: what there is goes on.
TEST_F(PageSets, GoOnWithoutThePagesThatFail) {
    keep_in_pages("3");
    in_child([&] {
        fs::create_directory(page(2));
        EXPECT_EQ(start(path, "49152"), 20);
        record(2000);
        EXPECT_THAT(chain(view_t(page(1))), testing::StartsWith("108/2/0 44/12/2 "));
        EXPECT_THAT(std::string(view_t(page(1)).pBytes + 228), HasSubstr(" not spooled "));
        fs::remove(page(2));
        EXPECT_EQ(tr_set_size_1(98304), 0);
        EXPECT_EQ(states(path), "1 4 4 ");
    });
    for (const char *pCount : {"-1", "65537"}) {
        in_child([&] {
            keep_in_pages(pCount);
            EXPECT_EQ(start(path), -1);
            EXPECT_EQ(last_error(), "14 14");
            EXPECT_EQ(std::string(anchors.fileName), path);
            EXPECT_EQ(anchors.uRequestedFileSize, 65536U);
        });
    }
    in_child([&] {
        const std::string tooLong = dir.file(std::string(4091 - dir.path().size() - 1, 'n')); // "x.1.sp" would not fit
        EXPECT_EQ(start(tooLong), 17);
        EXPECT_EQ(std::string(anchors.fileName), tooLong);
    });
}

TEST_F(PageSets, ChangeNameAndSize) {
    keep_in_pages("3");
    in_child([&] {
        const std::string other = dir.file("a.spool/other"); // ".sp" in it is not a page's
        fs::create_directory(dir.file("a.spool"));
        uint32_t size = 0;
        ASSERT_EQ(start(path, "49152"), 0);
        const view_t first(page(1));
        EXPECT_EQ(tr_set_filename_1(path.c_str()) + tr_set_filename_1(page(1).c_str()), 0); // the names it goes by
        EXPECT_EQ(chain(first), "52/16/2 16132/0/4095 @252");
        record(400);
        EXPECT_EQ(tr_set_filename_1(other.c_str()), 0);
        EXPECT_EQ(states(other), "1 4 4 ");
        EXPECT_EQ(tr_get_file_size_1(other.c_str(), &size), 0);
        EXPECT_EQ(size, 16384U);
        EXPECT_EQ(tr_set_size_1(100000), 0); // a page has a third of it, in whole pages of memory
        EXPECT_EQ(fs::file_size(page(3, other)), 36864U);
        record(900);
        EXPECT_EQ(states(other), "2 1 4 ");
        EXPECT_EQ(tr_set_filename_1(path.c_str()), 0);
        EXPECT_EQ(states(path), "4 1 4 "); // back where it was
        EXPECT_EQ(tr_set_filename_1(nullptr), 0);
        record(1);
        EXPECT_EQ(register_one("EFGH"), 0);
        EXPECT_EQ(std::string(anchors.fileName), page(1));
        EXPECT_EQ(states(path), "4 1 4 ");
        tr_term();
        EXPECT_TRUE(anchors.nextPage == nullptr && anchors.fileName[0] == '\0');
        EXPECT_EQ(anchors.uRequestedFileSize, 100000U);
        EXPECT_FALSE(fs::exists(path));
    });
}

// A file of its own that has the name of a page is that page in the set, and its token records to the set.
TEST_F(PageSets, AdoptAFileOfThatName) {
    in_child([&] {
        (void)setenv("KZ_TR_SPOOL", (path + "$:ON:3:" + dir.file("spool")).c_str(), 1);
        const tr_file_token_t token = token_of(page(2));
        ASSERT_EQ(start(path, "49152"), 0);
        EXPECT_EQ(states(path), "1 4 4 ");
        record(1, token);
        EXPECT_EQ(chain(view_t(page(1))), "52/16/2 44/12/4 16088/0/4095 @296");
        EXPECT_EQ(token_of(path), &anchors);
        EXPECT_EQ(tr_set_filename_1("") + tr_set_file_size_1(page(2).c_str(), 65536), 0);
        record(1, token); // a file of its own again, and not started
        EXPECT_EQ(token->pMap, nullptr);
        EXPECT_EQ(register_one("EFGH"), 0);
        record(1, token);
        EXPECT_EQ(chain(view_t(page(1, page(2)))),
                  "52/16/2 44/12/4 16088/0/4095 @296"); // the first file fixed the size of its entry's pages
    });
}

// No anchor is a page of two sets, and the default file can leave a set that adopted it.
TEST_F(PageSets, ShareNoPages) {
    keep_in_pages("3");
    in_child([&] {
        (void)token_of(path); // another anchor of the name that the default file gets
        const tr_file_token_t second = token_of(page(2));
        EXPECT_EQ(start(path, "49152"), 17); // of the other, which comes later
        EXPECT_EQ(set_head(second), &anchors);
        EXPECT_EQ(last_error(), "17 17 " + page(2));
    });
    in_child([&] {
        const tr_file_token_t head = token_of(path);
        ASSERT_EQ(start(page(2), "49152"), 0);
        EXPECT_EQ(tr_set_filename_1(dir.file("new").c_str()), 0);
        record(1, head);
        tr_term();
        EXPECT_TRUE(anchors.nextPage == nullptr && head->nextPage == nullptr);
    });
}

// Whatever an old process left behind: exactly one page is active.
TEST_F(PageSets, SettleTheActivePage) {
    keep_in_pages("3");
    in_child([&] { ASSERT_EQ(start(path, "49152"), 0); });
    struct {
        uint32_t states[3];
        const char *pExpected;
    } const cases[] = {{{1, 4, 4}, "1 4 4 "}, {{2, 1, 4}, "4 1 4 "}, {{1, 2, 1}, "4 4 1 "}, {{8, 2, 4}, "1 4 4 "}};
    for (const auto &row : cases) {
        for (int i = 0; i < 3; i++)
            view_t(page(i + 1)).put(192, row.states[i], 1);
        in_child([&] {
            ASSERT_EQ(start(path, "49152"), 0);
            EXPECT_EQ(states(path), row.pExpected);
        });
    }
}

TEST_F(PageSets, RepairOnlyTheDamagedPage) {
    keep_in_pages("3");
    in_child([&] {
        ASSERT_EQ(start(path, "49152"), 0);
        record(400);
        const view_t second(page(2));
        second.put(second.get(44), 0); // the free record: a walk that never ends
        record(2);
        EXPECT_TRUE(fs::exists(page(2) + ".save") && !fs::exists(page(1) + ".save"));
        EXPECT_EQ(states(path), "2 1 4 "); // from the head on, which is full
        EXPECT_EQ(chain(view_t(page(2))), "52/16/2 44/12/4 16088/0/4095 @296");
    });
}

// The event's message stands in place of the start record, cut to what a record may have.
TEST_F(PageSets, TellTheCoreEventOfTheirFile) {
    keep_in_pages("3");
    in_child([&] {
        EXPECT_EQ(tr_core_event_1("other", "first") + tr_core_event_1(path.c_str(), "it died"), 0);
        ASSERT_EQ(start(path, "49152"), 0);
        EXPECT_EQ(chain(view_t(page(1))), "60/19/2 16124/0/4095 @260");
        EXPECT_EQ(std::string(view_t(page(1)).pBytes + 252), "it died");
        EXPECT_EQ(tr_core_event_1(page(1).c_str(), std::string(20000, 'm').c_str()) + tr_set_size_1(60000), 0);
        EXPECT_EQ(strlen(view_t(page(1)).pBytes + 252), 10140U - 52 - 1);
        EXPECT_EQ(tr_core_event_1(path.c_str(), nullptr) + tr_set_size_1(49152), 0);
        EXPECT_EQ(chain(view_t(page(1))), "52/16/2 20228/0/4095 @252");
    });
}
