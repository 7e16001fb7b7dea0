// The texts that set levels, map files and set sizes: what each grammar takes and where it finds fault, and what the
// accepted entries do to components that are there already and to those that come later.
#include <span>
#include <sstream>

#include <gtest/gtest.h>

#include "tests/support/tracing.h"
#include "trace/control/filemap.h"
#include "trace/control/levels.h"
#include "trace/control/settings.h"

namespace fs = std::filesystem;
using Specs = Tracing;

// ---- The grammars ----

static std::string fault_text(const spec_fault_t &fault) {
    return std::to_string(fault.code) + " " + std::to_string(fault.offset) + "+" + std::to_string(fault.origin);
}

// Appends a text to a list that has an entry already. Returns the new entries, and the fault if there is one.
template <typename Spec, int32_t (*PARSE)(const char *, spec_list_t<Spec>, spec_fault_t *)>
static std::string parsed(const char *pText) {
    Spec *pFirst = nullptr, *pLast = nullptr;
    spec_fault_t fault;
    std::string text;
    EXPECT_EQ(PARSE("file O:old", {&pFirst, &pLast}, &fault), 0); // suits both grammars
    const int32_t rc = PARSE(pText, {&pFirst, &pLast}, &fault);
    for (const Spec *pSpec = pFirst->pNext; pSpec != nullptr; pSpec = pSpec->pNext) {
        if constexpr (requires { pSpec->fileName; })
            text += std::string(pSpec->fileName) + "<" + pSpec->pCompId + "/" + pSpec->pCategory + " ";
        else
            text +=
                std::string(pSpec->pCompId) + "/" + pSpec->pCategory + "=" + std::to_string(pSpec->detailLevel) + " ";
    }
    EXPECT_EQ(pLast->pNext, nullptr);
    free_specs<Spec>({&pFirst, &pLast});
    return rc != 0 ? text + fault_text(fault) : text;
}

static std::string parsed_sizes(const char *pText) {
    std::string text;
    file_size_spec_t spec;
    spec_fault_t fault = {};
    for (spec_range_t range = whole_text(pText); range.pos < range.end;) {
        if (parse_file_size(&range, &spec, &fault) != 0)
            return text + fault_text(fault);
        text += std::string(spec.fileName) + "=" + std::to_string(spec.uSize) + " ";
    }
    return text;
}

// Each row is texts with "|" between them, and behind "->" what comes of each.
static void check(std::string (*pParsed)(const char *), std::initializer_list<const char *> rows) {
    for (const std::string row : rows) {
        const size_t arrow = row.find("->");
        std::istringstream texts(row.substr(0, arrow) + "|");
        for (std::string text; std::getline(texts, text, '|');)
            EXPECT_EQ(pParsed(text.c_str()), row.substr(arrow + 2)) << text;
    }
}

// Among the traps: a comma ends an entry wherever it stands; some of the blanks belong to the patterns.
TEST(LevelText, IsTakenWholeOrRefusedAtItsFirstFault) {
    check(parsed<trace_level_spec_t, parse_levels>,
          {"->", "*:*|*:*,|*:* ,| *:*=0xffffffff|*:*=-1|*:*=18446744073709551616->.*/.*=-1 ",
           "  A :b.c  = 7 , C: *,\tD:e\t->A /b.c=7 C/ *=-1 \tD/e\t=-1 ",
           "[[:upper:]]+:io=2,A=B:a:b,A{2}:c->[[:upper:]]+/io=2 A=B/a:b=-1 A{2}/c=-1 ",
           "A:b=0x1f,A:b=010,A:b=256,A:b=0x100000000->A/b=31 A/b=8 A/b=256 A/b=0 ", "A:b,,|A:b,:b|    |    :b->10 4+0",
           "ABCD:io=7, ->10 11+0", "ABCD|ABC ,A:b|AB{2,}:b|ABC[,]:b|}:io|a]:b->11 4+0",
           "ABCD:|ABCD:=3|AB:  =3|ABCD:,A:b->12 5+0", "A:b= |A:bc=|A:b=3x|A:b=08|A:bc=- 1->13 5+0",
           "A:b, (:(|A:b, a]b[:c->15 5+0", "ABCD:io=1,ABCD:(x=2->16 15+0"});
}

// Among the traps: a semicolon ends a group wherever it stands; one comma too many is passed over; a name that is too
// long is cut, but passed over as a whole.
TEST(FileMapText, IsTakenGroupByGroup) {
    const std::string name(4095, 'n'), cut = name + "xyz,A:b->" + name + "<A/b ",
                                       quoted = "\"" + name + "x,z\" A:->12 2+4101";
    check(parsed<trace_map_spec_t, parse_file_maps>,
          {"->", "a,A:*;b,*:c;|a A:*;  b   *:c,|\"a\"A:*;b\"*:c->a<A/.* b<.*/c ",
           "\"/a b,c\",A:b;,A:c;\"\" [[:alpha:]]:d{2}->/a b,c<A/b <A/c <[[:alpha:]]/d{2} ",
           "a,A:b,C:d extra:=,E:f=3|a,A:b,,C:d, , E:f=3->a<A/b a<C/d a<E/f=3 ", "ab|a,|a |\"a|  |\"a;b\",A:b->11 2+0",
           "a ,A:b|a,,A:b->11 0+2", "a,ABCD|a ABCD|a,ABC ,A:b|a,ABC[,]:b->11 4+2", "a,A:b;;b,A:b->a<A/b 11 6+0",
           "a,A:b;b,C:d,EF,C:d->a<A/b 11 6+8", "a,A:b,,|a,A:b, |a,A:b,,:b->10 5+2", "a,A:|a,A: b|a,A:,B:c->12 2+2",
           "a,(:(->15 0+2", "a,A:b,C:(->16 6+2", cut.c_str(), quoted.c_str()});
}

TEST(FileSizeText, IsTakenGroupByGroup) {
    check(parsed_sizes,
          {",262144|\"\"0x40000;|,01000000 ->=262144 ", "a,-1|a,99999999999999999999|a,\t4294967295->a=4294967295 ",
           "\"a b\",abc;c 12x;|\"a b\"0x100000000; c,12|\"a b\" 08;c,12|\"a b\"\t;c,12->a b=0 c=12 ",
           "ab|a,|\"a|\"a;b\",1->11 2+0", "a,1;b,;c,1|a,1;  ->a=1 11 6+0"});
}

// ---- What the entries do ----

static tr_detail_level_t levels[3];
static tr_file_token_t *pTokens; // of the component registered last

// A component whose categories do not stand in the order of their identifiers.
static int32_t register_three(const char *pCompId) {
    static constexpr tr_category_description_t categories[] = {{2, "net", 5, 1}, {0, "NETIO", 9, 3}, {1, "io", 7, 0}};
    return tr_ms_register_component_1(pCompId, levels, categories, 3, &pTokens);
}

static std::string levels_now() {
    return std::to_string(levels[0]) + " " + std::to_string(levels[1]) + " " + std::to_string(levels[2]) + " ";
}

// The files behind the tokens: "-" is no token, "default" the default file's.
static std::string files_now() {
    std::string text;
    for (const tr_file_token_t token : std::span(pTokens, 3))
        text += (token == nullptr ? "-" : token == &anchors ? "default" : token->fileName) + std::string(" ");
    return text;
}

TEST_F(Specs, SetLevelsByTheirLastMatchingEntryAlsoForLaterComponents) {
    in_child([&] {
        const auto check = [](const char *pText, const std::string &result, const std::string &error = "0 0") {
            EXPECT_EQ(tr_set_trace_levels_1(pText), std::stoi(error)) << pText;
            EXPECT_EQ(last_error(), error);
            EXPECT_EQ(levels_now(), result) << pText;
        };
        ASSERT_EQ(register_three("ABCD"), 0);
        EXPECT_EQ(levels_now(), "1 3 0 "); // the minimum levels, by position
        check("*:*", "9 7 5 ");
        check("ABCD:*=0", "3 0 1 ");
        check("b:Net.*=4", "4 0 4 "); // found anywhere, in either case
        check("ABCD:net=255,ABCD:^io$=256", "255 0 255 ");
        check("ABCD:io=300, ABCD:NETIO,XY:*=8", "9 44 255 ");
        check("ABCD:*=1,ABCD:(=2", "9 44 255 ", "16 16 14");
        ASSERT_EQ(register_three("XABX"), 0); // the entries for ABCD are not for it
        EXPECT_EQ(levels_now(), "4 7 4 ");
        (void)memset(levels, 0, sizeof levels);
        EXPECT_EQ(tr_set_filename_1(path.c_str()), 0); // nothing to record, no file
        EXPECT_FALSE(fs::exists(path));
        levels[0] = 1; // by the program: found out with the next entry
        check("XY:*", "1 0 0 ");
        EXPECT_TRUE(fs::exists(path));
        EXPECT_EQ(tr_set_trace_levels_1(nullptr) + __tr_set_trace_levels_1(""), 0);
    });
}

TEST_F(Specs, SendCategoriesToFilesByTheirLastMatchingEntryAlsoForLaterComponents) {
    in_child([&] {
        const auto check = [](const char *pFile, const char *pText, const char *pFiles,
                              const std::string &error = "0 0") {
            EXPECT_EQ(tr_set_file_map_1(pFile, pText), std::stoi(error)) << pText;
            EXPECT_EQ(last_error(), error);
            EXPECT_EQ(files_now(), pFiles);
        };
        fs::current_path(dir.path()); // names are used as they are given
        ASSERT_EQ(register_three("ABCD"), 0);
        check("a", "ABCD:net", "a a - ");
        check("b", "abcd:netio", "a b - ");
        check("", "B:^net$,Y:*", "default b - ");
        check("c", "XY:*,ABCD:none", "default b - ");
        check("d", "ABCD:*,", "d d d ");
        check("a", "*:*,A:b,:b", "d d d ", "10 10 8");
        check("a", nullptr, "d d d ", "11 11 0");
        check(nullptr, "ABCD:^net", "default default d ");
        check("no/such", "ABCD:^net$", "no/such default d ", "18 18 2");
        EXPECT_EQ(tr_set_file_map_1(std::string(4096, 'n').c_str(), "*:*"), 17);
        EXPECT_EQ(tr_ms_record_id_1("ABCD", 1, pTokens[2]), 0);
        EXPECT_EQ(chain(view_t("d")), "52/16/2 32/1/4 65252/0/4095 @284");
        EXPECT_TRUE(fs::exists("a") && fs::exists("b") && !fs::exists("c"));
        EXPECT_EQ(anchors.numAnchors, 5U); // nothing had to go to c
        global_stop_trace();
        EXPECT_EQ(tr_set_file_map_1("e", "("), 0);
    });
}

// Faulty texts are left out without a word, but for the groups before the fault.
TEST_F(Specs, ComeFromTheEnvironment) {
    // The result: the levels, the files, the sizes of the default file and of the other one.
    const auto check = [&](const char *pLevels, const char *pMaps, const std::string &sizes, const char *pResult) {
        (void)fs::remove(path); // it would keep its size
        in_child([&] {
            fs::current_path(dir.path());
            (void)setenv("KZ_TR_TRACE_LEVELS", pLevels, 1);
            (void)setenv("KZ_TR_FILE_MAP", pMaps, 1);
            (void)setenv("KZ_TR_FILE_SIZE", sizes.c_str(), 1);
            (void)setenv("KZ_TR_FILENAME", path.c_str(), 1);
            EXPECT_EQ(register_three("ABCD"), 0);
            EXPECT_EQ(last_error(), "0 0");
            uint32_t size = 0, otherSize = 0;
            EXPECT_EQ(tr_get_size_1(&size), 0);
            (void)tr_get_file_size_1("other", &otherSize);
            EXPECT_EQ(levels_now() + files_now() + std::to_string(size) + " " + std::to_string(otherSize), pResult);
        });
    };
    check("*:*,ABCD:io=8", "other,ABCD:net;,*:^net$", "other,8192;,12288", "8 8 5 default other - 12288 8192");
    check("", "other", "\"" + path + "\" 8192;other", "1 3 0 - - - 8192 0");
}
