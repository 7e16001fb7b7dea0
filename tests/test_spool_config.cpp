// Spooling entries: what the configuration file and KZ_TR_SPOOL yield, which entry governs a file, and the directories.
#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/composed.h"
#include "tests/support/sandbox.h"
#include "tests/support/tracing.h"
#include "trace/spool/config.h"
#include "trace/spool/spool.h"

namespace fs = std::filesystem;
using SpoolConfig = Tracing;

// ---- Readings as texts ----

static constexpr const char *kindNames[] = {"fine",  "open",      "expression", "heading", "form",   "unknown",
                                            "twice", "separator", "empty",      "long",    "switch", "memory",
                                            "#",     "changed",   "incomplete", "line",    "error",  "entry"};

struct list_t {
    trace_spool_spec_t *pFirst = nullptr, *pLast = nullptr;
    spool_findings_t findings = {};

    ~list_t() {
        free_spool_spec_linked_list(pFirst);
        free_spool_findings(&findings);
    }
    // The entries, and what there is to say: "kind@line+offset".
    std::string text() const {
        std::string text;
        const trace_spool_spec_t *pPrev = nullptr;
        for (const auto *pSpec = pFirst; pSpec != nullptr; pPrev = pSpec, pSpec = pSpec->pNext) {
            EXPECT_EQ(pSpec->pPrev, pPrev);
            text += std::string(" ") + pSpec->pattern + "|" + (pSpec->onoff != 0 ? "on|" : "off|") +
                    std::to_string(pSpec->pages) + "|" + std::to_string(pSpec->pg_size) + "|" +
                    std::to_string(pSpec->sync_interval) + "|" + pSpec->dest;
        }
        EXPECT_EQ(pLast, pPrev);
        for (const auto *pFinding = findings.pFirst; pFinding != nullptr; pFinding = pFinding->pNext) {
            if (pFinding->kind != TR_SPOOL_ENTRY)
                text += std::string(" ") + kindNames[pFinding->kind] + "@" + std::to_string(pFinding->place.line) +
                        "+" + std::to_string(pFinding->place.offset);
        }
        return text;
    }
};

static std::string read_text(const std::string &text) {
    list_t list;
    const int32_t rc = read_spool_text(text.c_str(), {&list.pFirst, &list.pLast}, &list.findings);
    return std::to_string(rc) + list.text();
}

static std::string read_conf(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
    list_t list;
    const int32_t rc = read_spool_file(path.c_str(), {&list.pFirst, &list.pLast}, &list.findings);
    return std::to_string(rc) + list.text();
}

// Each row is texts with "&" between them, and behind "->" what comes of each.
static void check(const std::function<std::string(const std::string &)> &read,
                  std::initializer_list<std::string> rows) {
    for (const std::string &row : rows) {
        const size_t arrow = row.find("->");
        std::istringstream texts(row.substr(0, arrow) + "&");
        for (std::string text; std::getline(texts, text, '&');)
            EXPECT_EQ(read(text), row.substr(arrow + 2)) << text;
    }
}

static const std::string FOUR = "pat=a\nspooling=ON\npages=3\ndest=/d\n", ENTRY = " a|on|3|262144|60|/d";
static const std::string EXAMPLE =
    "# two kinds of programs\n\ndaemons:\n    pat = /var/kz/.*/log/mc/.*\n    spooling = ON\n    pages = 4\n"
    "    dest = /var/spool/trc\n    size = 1048576\n    sync_interval = 300\ntools:\n  PAT = /tmp/.*tool.*\n"
    "  Spooling = off\n  pages = 1\n  dest = /var/spool/tools";

// ---- Reading ----

// Among the traps: a pattern runs to the first ":", a destination to the next ",".
TEST(SpoolText, StaysUpToItsFirstFault) {
    check(read_text,
          {"->41", "/a.*:ON:5:/d/app,other:OFF:2:/x:y->40 /a.*|on|5|0|60|/d/app other|off|2|0|60|/x:y",
           "a{1,2}:off: +07x:/x,->41 a{1,2}|off|7|0|60|/x", "a:ON:9:/x,b,OFF,:ON:c->39 a|on|9|0|60|/x separator@0+21",
           std::string(1024, 'p') + ":ON:1:/x->39 long@0+1023", ":ON:1:/x->39 empty@0+0",
           "a:O:1:/x&a:ONE:1:/x->39 switch@0+2", "a:ON:1:,b->39 empty@0+7", "a:ON:1->39 separator@0+6"});
}

// Among the traps: a "#" drops the whole line, and a long line is several.
TEST_F(SpoolConfig, FileStaysUpToItsFirstFault) {
    std::string commented = EXAMPLE;
    commented.insert(commented.find("\n    dest"), " # of them");
    const auto comment = [](size_t length) { return "#" + std::string(length - 1, 'c') + "\n"; };
    check([&](const std::string &text) { return read_conf(path, text); },
          {"->0", "x:\n" + FOUR + "y z: w\n" + FOUR + "->0" + ENTRY + ENTRY,
           EXAMPLE + "->0 /var/kz/.*/log/mc/.*|on|4|1048576|300|/var/spool/trc "
                     "/tmp/.*tool.*|off|3|262144|60|/var/spool/tools changed@13+0",
           commented + "->46 #@6+14 form@10+0", FOUR + "->46 heading@1+0", "x:\n" + FOUR + " pages = 4\n->46 twice@6+1",
           "x:\n" + FOUR + "colour=red\n->46" + ENTRY + " unknown@6+0", "x:\npat=^a\n->46 form@2+0",
           "x:\n" + FOUR + "y:\npat=b\n->0" + ENTRY + " incomplete@8+0",
           "x:\n" + FOUR + "size=9999\nsync_interval=9\npat=b\n->46 a|on|3|9999|9|/d heading@8+0",
           comment(1021) + comment(1022) + "x:\n" + FOUR + "->0" + ENTRY,
           "\n" + comment(1023) + "->46 line@2+0 heading@2+0"});
    list_t list;
    EXPECT_EQ(read_spool_file(dir.file("none").c_str(), {&list.pFirst, &list.pLast}, &list.findings), 48);
    EXPECT_EQ(read_spool_file(dir.path().c_str(), {&list.pFirst, &list.pLast}, &list.findings), 48);
    EXPECT_EQ(list.text(), " open@0+0 open@0+0");
}

// A row is the values of spooling, pages, size and sync_interval.
TEST_F(SpoolConfig, ValuesOutOfBoundsAreReplacedAndNoted) {
    const std::string all = " changed@3+0 changed@4+0 changed@6+0 changed@7+0";
    const auto read = [&](const std::string &row) {
        std::istringstream words(row);
        std::string onoff, pages, size, interval;
        words >> onoff >> pages >> size >> interval;
        return read_conf(path, "x:\npat=a\nspooling=" + onoff + "\npages=" + pages + "\ndest=/d\nsize=" + size +
                                   "\nsync_interval=" + interval);
    };
    check(read, {"oN 3 4096 1->0 a|on|3|4096|1|/d", "oFF 010 04097 99999999999->0 a|off|10|4097|2147483647|/d",
                 "yes 2 100 0->0 a|off|3|4096|3600|/d" + all, "ONE -7 -5 -1->0 a|off|3|262144|60|/d" + all,
                 "ON$ 7x x 60s->0 a|off|7|4096|60|/d" + all});
}

// The twin has the identifier in place of what stands for the name, and nothing of what stands before.
TEST(SpoolEntry, HasATwinForTheClustersIdentifier) {
    const auto twin_of = [&](const std::string &pattern) {
        list_t list;
        EXPECT_EQ(addSpoolCfgElement("/d", pattern.c_str(), 3, 1, -1, &list.pFirst, &list.pLast, 1, 0), 0);
        return list.pLast == list.pFirst ? "" : list.text().substr(pattern.size() + 15);
    };
    in_child([&] {
        (void)setenv("KZ_CU_CLUSTER_NAME", "c1", 1);
        (void)setenv("KZ_CU_CLUSTER_ID", "id7", 1);
        check(twin_of, {"^/var/kz/c1/log/.*->/var/kz/id7/log/.*|on|3|0|60|/d", "/var/kz/.*->/var/kz/id7|on|3|0|60|/d",
                        "x/VAR/kz/C.$|y/z->/var/kz/id7/z|on|3|0|60|/d", "/var/kz/c/log&/var/kz/(c1/log|x)&/tmp/c1->"});
    });
}

TEST(SpoolEntry, GovernsWhatItMatchesFirst) {
    list_t list;
    ASSERT_EQ(read_spool_text("(:ON:9:/1,^/a:ON:1:/2,^/a/B$:OFF:2:/3,\\.sp$:ON:2:/4,x:ON:2:/5",
                              {&list.pFirst, &list.pLast}, nullptr),
              40);
    const auto dest_of = [&](const std::string &name) {
        const auto *const pSpec = find_spool_spec(name.c_str(), list.pFirst);
        return std::string(pSpec != nullptr ? pSpec->dest : "none");
    };
    check(dest_of, {"/a/b&/A/b.12.sp->/3", "/a/b.sp&/a/b..sp&/a/b.1x.sp&.1.sp&12.sp&x.sp->/4",
                    "x.1.sp&" + std::string(4095, 'x') + "->/5", "/a/&&n.1.sp&" + std::string(4096, 'x') + "->none"});
}

// ---- Directories ----

static std::string host_name() {
    char name[300] = "";
    (void)gethostname(name, sizeof name - 1);
    return {name, strcspn(name, ".")};
}

static const std::string NODE = "/" + host_name() + "/0000000000001234/test_spool_config";
static const std::string BELOW = "/c1/0a1b2c" + NODE;

// Runs the body on a machine of its own, on a node of a cluster.
static void in_cluster(const std::function<void()> &body) {
    in_child([&] {
        (void)setenv("KZ_CU_CLUSTER_NAME", "c1", 1);
        (void)setenv("KZ_CU_CLUSTER_ID", "0a1b2c", 1);
        (void)setenv("KZ_CU_NODE_ID", "4660", 1);
        enter_private_machine();
        fs::create_directory("/var/kz/cfg");
        body();
    });
}

static std::string dir_of(const char *pName) {
    const char *const pDir = tr_get_spool_dir_1(pName);
    return pDir != nullptr ? pDir : "null";
}

// Among the traps: a failed build leaves the entry as it was configured; entries that are off have directories as well.
TEST(SpoolDir, IsMadeForTheProgramBelowTheDestination) {
    static constexpr char ENTRIES[] =
        "^/one:ON:3:/var/kz/a/b,^/off:OFF:3:/var/kz/off/,^/no:ON:3:/dev/null,IW/a:ON:2:/var/kz/iw,IW/b:ON:2:/var/kz/iw,"
        "^/bad:ON:3:/var/kz/bad/";
    in_cluster([&]() TR_UNCHECKED {
        (void)umask(027);
        (void)setenv("KZ_TR_SPOOL", ENTRIES, 1);
        EXPECT_EQ(dir_of("/none") + dir_of("/no") + dir_of(nullptr), "nullnullnull");
        EXPECT_EQ(dir_of("/one"), "/var/kz/a/b" + BELOW);
        EXPECT_EQ(fs::status("/var/kz/a/b" + BELOW).permissions(), fs::perms::owner_all);
        EXPECT_EQ(dir_of("/off"), "null");
        EXPECT_TRUE(fs::is_directory("/var/kz/off" + BELOW));
        EXPECT_EQ(dir_of("/var/kz/IW/a"), "/var/kz/iw/IW/unknown" + NODE);
        fs::create_symlink("/var/kz/abc123", "/var/kz/IW");
        EXPECT_EQ(dir_of("/var/kz/IW/b"), "/var/kz/iw/IW/abc123" + NODE);
        fs::create_directory("/var/kz/bad");
        std::ofstream("/var/kz/bad/c1") << "text";
        EXPECT_EQ(dir_of("/bad"), "null");
        EXPECT_STREQ(anchors.pLastSpoolSpec->dest, "/var/kz/bad/");
    });
}

// ---- The first reading ----

TEST(SpoolReading, HappensOnce) {
    // The variable comes before the file, also with a faulty text; an empty one counts as none.
    for (const char *pText : {"", "a:ON"}) {
        in_cluster([&] {
            std::ofstream(TR_SPOOL_CONFIG_FILE) << "x:\n" << FOUR << "y:\n" << FOUR;
            (void)setenv("KZ_TR_SPOOL", pText, 1);
            EXPECT_EQ(register_one("ABCD"), 0);
            tr_term();
            EXPECT_EQ(register_one("ABCD"), 0);
            EXPECT_EQ(dir_of("/none"), "null");
            const trace_spool_spec_t *pFirst = anchors.pFirstSpoolSpec, *pLast = anchors.pLastSpoolSpec;
            EXPECT_TRUE(*pText == '\0' ? pFirst->pNext == pLast && pFirst != pLast : pFirst == nullptr);
        });
    }
}

// ---- The command ----

TEST(SpoolCommand, ShowsEntriesFaultsAndTheGoverningEntry) {
    const auto config = [](const std::string &arguments) {
        const auto [text, exitCode] = run("config " + arguments);
        return text + std::to_string(exitCode);
    };
    in_cluster([&] {
        fs::current_path("/var/kz");
        std::ofstream("good") << EXAMPLE;
        EXPECT_EQ(config("good --match /var/kz/c1/log/mc/x.3.sp --program /usr/sbin/mydaemon"),
                  R"(entry  stanza     pattern                   spooling  pages  page size  interval  destination
1      daemons    /var/kz/.*/log/mc/.*      on        4      1048576    300 s     /var/spool/trc
2      twin of 1  /var/kz/0a1b2c/log/mc/.*  on        4      1048576    300 s     /var/spool/trc
3      tools      /tmp/.*tool.*             off       3      262144     60 s      /var/spool/tools
/var/kz/c1/log/mc/x.3.sp is governed by entry 1, whose pages go to /var/spool/trc/c1/0a1b2c/)" +
                      host_name() + "/0000000000001234/mydaemon\nkztrace: good:13: warning: pages = 1 counts as 3\n0");
        EXPECT_EQ(config("--text '(:off:5:/x,c:no:1:/z' --match b"),
                  R"(entry    pattern  spooling  pages  page size  interval  destination
1        (        off       5      as file    60 s      /x
b is governed by no entry: it is not spooled
kztrace: the switch is neither ON nor OFF
  (:off:5:/x,c:no:1:/z
               ^
kztrace: the entries above stay in force, the text from the faulty one on is without effect
kztrace: warning: entry 1 governs no file, its pattern is no expression: Unmatched ( or \(
1)");
    });
}
