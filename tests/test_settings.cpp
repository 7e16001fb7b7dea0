// Names and sizes of trace files; the snapshot of the levels; queries on trace files.
#include <sys/stat.h>

#include <fstream>
#include <span>

#include <gtest/gtest.h>

#include "tests/support/tracing.h"

namespace fs = std::filesystem;
using Settings = Tracing;
using Query = Tracing;

TEST_F(Settings, NameTheDefaultFile) {
    in_child([&] {
        fs::current_path(dir.path());
        const tr_file_token_t other = token_of("other");
        const std::string tooLong(4096, 'n');
        // The result: the name, and which files are started.
        const auto check = [&](const char *pName, const std::string &result, const std::string &error = "0 0") {
            char name[TR_NAME_SIZE];
            EXPECT_EQ(tr_set_filename_1(pName), std::stoi(error));
            EXPECT_EQ(last_error(), error);
            EXPECT_EQ(tr_get_filename_1(name), 0);
            const char *pStarted = anchors.pMap != nullptr ? " default" : "";
            EXPECT_EQ(std::string(name) + pStarted + (other->pMap != nullptr ? " other" : ""), result);
        };
        ASSERT_EQ(start(path), 0);
        check(path.c_str(), path + " default other");
        check("", " other");
        check("second", "second default other"); // as it was given
        check(tooLong.c_str(), "second default other", "17 17 " + tooLong);
        check(nullptr, "second");
        check("no/such", "no/such", "18 18 2");
        EXPECT_EQ(tr_get_filename_1(nullptr) + __tr_set_filename_1(""), 17);
    });
}

TEST_F(Settings, SizeTheFiles) {
    in_child([&] {
        uint32_t size = 77;
        const auto check = [&](const std::string &name, uint32_t expected, const std::string &error = "0 0") {
            EXPECT_EQ(tr_get_file_size_1(name.c_str(), &size), std::stoi(error));
            EXPECT_EQ(last_error(), error);
            EXPECT_EQ(size, expected);
        };
        fs::current_path(dir.path());
        EXPECT_EQ(tr_set_size_1(0) + tr_set_file_size_1("other", UINT32_MAX), 0);
        check("", 0, "25 25");
        check("other", UINT32_MAX, "25 25");
        EXPECT_EQ(tr_set_file_size_1("other", 4000) + tr_set_filename_1(path.c_str()) + register_one("ABCD"), 0);
        check("other", 4096);
        check(path, 4096);
        EXPECT_EQ(__tr_set_size_1(0), 0);
        EXPECT_EQ(chain(view_t(path)), "52/16/2 3844/0/4095 @252"); // not started once more
        EXPECT_EQ(tr_set_file_size_1(nullptr, 1) + tr_set_file_size_1(std::string(4096, 'n').c_str(), 1), 34);
        EXPECT_EQ(tr_get_size_1(nullptr) + tr_get_file_size_1(nullptr, &size), 34);
        check("none", 4096, "17 17 none");
    });
}

TEST_F(Settings, AreCopiedIntoASnapshot) {
    in_child([] {
        static constexpr tr_category_description_t categories[] = {{1, "one", 5, 2}, {0, "two", 6, 3}};
        tr_detail_level_t levels[2] = {};
        tr_mini_component_anchor_t none = {}, *pComps = &none;
        int32_t numComps = 77;
        EXPECT_EQ(tr_get_current_trace_levels_1(&numComps, &pComps), 0);
        EXPECT_TRUE(numComps == 0 && pComps == nullptr && anchors.bInitialized == 0);
        EXPECT_EQ(tr_get_current_trace_levels_1(&numComps, nullptr), -1);
        ASSERT_EQ(tr_register_component_1("TWO", levels, categories, 2) + register_one("FIRST"), 0);
        ASSERT_EQ(tr_get_current_trace_levels_1(&numComps, &pComps), 0);
        ASSERT_EQ(tr_set_trace_levels_1("*:*=9") + tr_unregister_component_1("TWO"), 0);
        std::string text;
        for (const auto &comp : std::span(pComps, static_cast<size_t>(numComps))) {
            text += std::string(comp.compId) + " ";
            for (int32_t i = 0; i < comp.numberOfCategories; i++)
                text += std::to_string(comp.pDetailLevels[i]) + comp.categories[i].category_name +
                        std::to_string(comp.categories[i].category_id) + " ";
        }
        EXPECT_EQ(text, "FIRS 1category0 TWO 2one1 3two0 ");
        tr_release_comp_info_1(numComps, pComps);
    });
}

TEST_F(Query, RefusesWhatIsNoFileOfAPage) {
    const std::string fifo = dir.file("fifo"), large = dir.file("large");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::ofstream(large).close();
    in_child([&] {
        tr_query_handle_t handle = &handle;
        const auto check = [&](const char *pName, const std::string &error) {
            EXPECT_EQ(tr_open_query_1(pName, &handle), std::stoi(error));
            EXPECT_EQ(last_error(), error);
            EXPECT_EQ(handle, &handle);
        };
        check(nullptr, "17 17 (NULL)");
        check(path.c_str(), "18 18 2");
        check(dir.path().c_str(), "20 20 " + dir.path());
        check(fifo.c_str(), "20 20 " + fifo);
        fs::resize_file(large, (4ULL << 30) + 0xfff); // of which 32 bits count
        check(large.c_str(), "36 37 " + large);
        fs::resize_file(large, (4ULL << 30) + 4096);
        EXPECT_EQ(tr_open_query_1(large.c_str(), nullptr), 37);
        EXPECT_EQ(tr_open_query_1(large.c_str(), &handle) + tr_close_query_1(handle), 0);
    });
}

TEST_F(Query, TellsWhoWroteTheFile) {
    std::ofstream(dir.file("page")) << std::string(200, '\xfe') +
                                           std::string(3896, '\0'); // no trace file, but nobody looks
    in_child([&] {
        const auto check = [](const std::string &name, pid_t writer, const std::string &program, uint32_t code) {
            tr_query_handle_t handle = nullptr;
            pid_t pid = 0;
            uint32_t platform = 0;
            char *pProgram = nullptr;
            const auto ask = [&](tr_query_handle_t asked) {
                return tr_query_pid_1(asked, &pid) + tr_query_prog_1(asked, &pProgram) +
                       tr_query_platform_1(asked, &platform);
            };
            ASSERT_EQ(tr_open_query_1(name.c_str(), &handle), 0);
            EXPECT_EQ(tr_query_platform_1(handle, nullptr), 37);
            memcpy(handle, "_TR", 4);
            EXPECT_EQ(ask(handle), 3 * 37);
            EXPECT_EQ(tr_close_query_1(nullptr) + tr_close_query_1(handle), 2 * 37);
            EXPECT_EQ(last_error(), "37 38");
            memcpy(handle, "_TR_", 4);
            EXPECT_EQ(ask(handle), 0);
            EXPECT_TRUE(pid == writer && pProgram == program && platform == code);
            free(pProgram);
            EXPECT_EQ(tr_close_query_1(handle), 0);
        };
        std::string program;
        std::getline(std::ifstream("/proc/self/cmdline"), program, '\0');
        ASSERT_EQ(start(path), 0);
        global_stop_trace(); // means nothing to queries
        check(path, getpid(), program.substr(0, 47), 2);
        check(dir.file("page"), static_cast<pid_t>(0xfefefefe), std::string(48, '\xfe'), 0xfe);
    });
}
