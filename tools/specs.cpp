// kztrace levels, map, sizes: what the library would understand of a specification. The parsers are its own; nothing is
// applied, and the library is not initialised.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>

#include "reader/message.h"
#include "tools/commands.h"
#include "tools/format.h"
#include "tools/specs.h"
#include "trace/control/filemap.h"
#include "trace/control/levels.h"
#include "trace/control/settings.h"
#include "trace/frame/frame.h"
#include "trace/trapi_set.h"

namespace kztrace {

// ---- Tables ----

// Writes rows below each other, the first column to the left and the others as said.
static void print_table(const std::vector<row_t> &rows, align_t align) {
    std::vector<size_t> widths(rows[0].size());
    for (const auto &row : rows) {
        for (size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], display_width(row[i]));
    }
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); i++) {
            if (i != 0)
                line += "  ";
            line += i != 0 && align == align_t::right ? fmt::format("{:>{}}", row[i], widths[i])
                                                      : fmt::format("{:<{}}", row[i], widths[i]);
        }
        line.resize(line.find_last_not_of(' ') + 1);
        fmt::print("{}\n", line);
    }
}

void print_entries(const std::vector<row_t> &rows, align_t align) {
    if (rows.size() > 1)
        print_table(rows, align);
}

// ---- Texts ----

std::string visible(std::string_view text) {
    return escape(text, "");
}

static std::string file_text(const char *pFileName) {
    return *pFileName == '\0' ? "(default trace file)" : visible(pFileName);
}

void report_at(const std::string &text, size_t offset, std::string_view what) {
    const std::string before = visible(std::string_view(text).substr(0, offset));
    const std::string behind = visible(std::string_view(text).substr(offset));
    (void)fflush(stdout);
    fmt::print(stderr, "kztrace: {}\n  {}{}\n  {:>{}}\n", what, before, behind, "^", display_width(before) + 1);
}

// The message that a program would get.
static std::string fault_message(const spec_fault_t &fault) {
    const bool bKnown = fault.code > 0 && fault.code < TR_NUM_MESSAGES;
    const trread::error_insert_t offset = {CU_ERROR_ARG_LONG, fault.offset, std::nullopt};
    const char *const pText = bKnown ? cu_mesgtbl_trapi_set[fault.code] : cu_badid_trapi_set;
    std::string message = trread::format_message(pText, {&offset, 1}).text;
    if (message.ends_with('\n'))
        message.pop_back();
    return message;
}

static int report_fault(const std::string &text, const spec_fault_t &fault, bool bSomeStay) {
    report_at(text, size_t{fault.origin} + fault.offset, fault_message(fault));
    if (fault.origin != 0)
        fmt::print(stderr, "kztrace: that offset counts from the selections of the file, which begin at offset {}\n",
                   fault.origin);
    fmt::print(stderr, "kztrace: {}\n",
               bSomeStay ? "the entries above stay in force, the text from the faulty group on is without effect"
                         : "nothing of the text takes effect");
    return EXIT_FAULT;
}

static int report_success(const std::string &text) {
    if (text.empty())
        fmt::print("the text is empty: nothing to do\n");
    return EXIT_OK;
}

// ---- Levels ----

// The array of a component takes the low eight bits of a level.
static std::string level_text(int32_t detailLevel) {
    if (detailLevel == TR_DEFAULT_LEVEL)
        return "default";
    const uint32_t level = static_cast<uint32_t>(detailLevel), stored = static_cast<tr_detail_level_t>(level);
    return level == stored ? std::to_string(level) : fmt::format("{} (stored as {})", level, stored);
}

static int run_levels(const std::string &text) {
    trace_level_spec_t *pFirst = nullptr, *pLast = nullptr;
    spec_fault_t fault = {};
    if (parse_levels(text.c_str(), {&pFirst, &pLast}, &fault) != 0)
        return report_fault(text, fault, false);
    std::vector<row_t> rows = {{"component", "category", "level"}};
    for (const auto *pSpec = pFirst; pSpec != nullptr; pSpec = pSpec->pNext)
        rows.push_back({visible(pSpec->pCompId), visible(pSpec->pCategory), level_text(pSpec->detailLevel)});
    free_specs<trace_level_spec_t>({&pFirst, &pLast});
    print_entries(rows);
    return report_success(text);
}

// ---- File maps ----

static int run_map(const std::string &text) {
    trace_map_spec_t *pFirst = nullptr, *pLast = nullptr;
    spec_fault_t fault = {};
    const int32_t rc = parse_file_maps(text.c_str(), {&pFirst, &pLast}, &fault);
    std::vector<row_t> rows = {{"file", "component", "category"}};
    const char *pPrevious = nullptr; // a file is named once for all of its selections that follow each other
    for (const auto *pSpec = pFirst; pSpec != nullptr; pSpec = pSpec->pNext) {
        const bool bSame = pPrevious != nullptr && strcmp(pPrevious, pSpec->fileName) == 0;
        rows.push_back({bSame ? "" : file_text(pSpec->fileName), visible(pSpec->pCompId), visible(pSpec->pCategory)});
        pPrevious = pSpec->fileName;
    }
    free_specs<trace_map_spec_t>({&pFirst, &pLast});
    print_entries(rows);
    return rc == 0 ? report_success(text) : report_fault(text, fault, rows.size() > 1);
}

// ---- Sizes ----

// A place in the text that the library passes over in silence.
struct warning_t {
    size_t offset;
    std::string text;
};

// Looks at the number of a group, as the parser takes it.
static void check_size(spec_range_t group, std::vector<warning_t> *pWarnings) {
    char fileName[TR_NAME_SIZE];
    group.end = find_char(&group, ';');
    parseFileName(&group, fileName);
    const char *const pNumber = group.pText + group.pos;
    const char *pStop = pNumber;
    const uint64_t value = read_number(pNumber, &pStop);
    if (pStop == pNumber) {
        pWarnings->push_back({group.pos, "warning: this is no number; the size is 0"});
        return;
    }
    if (value > UINT32_MAX)
        pWarnings->push_back({group.pos, fmt::format("warning: the size is more than {}; of the number only the low 32 "
                                                     "bits are taken, {}",
                                                     UINT32_MAX, static_cast<uint32_t>(value))});
    spec_range_t rest = {group.pText, static_cast<uint32_t>(pStop - group.pText), group.end};
    skip_blanks(&rest);
    if (rest.pos != rest.end)
        pWarnings->push_back({rest.pos, "warning: what follows the number is ignored"});
}

// What a file of that size takes: whole memory pages, and never less than the smallest file.
static uint64_t file_size_of(uint32_t size) {
    const auto pageSize = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
    return std::max<uint64_t>({TR_MIN_FILE_SIZE, pageSize, (size + pageSize - 1) / pageSize * pageSize});
}

static int run_sizes(const std::string &text) {
    std::vector<row_t> rows = {{"file", "size", "on disk"}};
    std::vector<warning_t> warnings;
    spec_range_t range = whole_text(text.c_str());
    spec_fault_t fault = {};
    const auto spec = std::make_unique<file_size_spec_t>();
    int32_t rc = 0;
    while (rc == 0 && range.pos < range.end) {
        const spec_range_t group = range;
        rc = parse_file_size(&range, spec.get(), &fault);
        if (rc != 0)
            break;
        rows.push_back(
            {file_text(spec->fileName), std::to_string(spec->uSize), std::to_string(file_size_of(spec->uSize))});
        check_size(group, &warnings);
    }
    print_entries(rows, align_t::right);
    for (const auto &warning : warnings)
        report_at(text, warning.offset, warning.text);
    return rc == 0 ? report_success(text) : report_fault(text, fault, rows.size() > 1);
}

// ---- Command line ----

static void add_spec(CLI::App *pApp, int *pExitCode, const char *pName, const char *pDescription, const char *pForm,
                     int (*run)(const std::string &text)) {
    auto pText = std::make_shared<std::string>();
    CLI::App *pCommand = pApp->add_subcommand(pName, pDescription);
    pCommand->add_option("TEXT", *pText, pForm)->required();
    pCommand->footer("Nothing is set: the text is read as the library reads it. What it understands goes to standard\n"
                     "output; what is wrong with the text, and where, to standard error. A text that begins with a\n"
                     "hyphen goes behind '--'.");
    pCommand->callback([pText, pExitCode, run] { *pExitCode = run(*pText); });
}

void add_levels(CLI::App *pApp, int *pExitCode) {
    add_spec(pApp, pExitCode, "levels", "Check a trace level specification, as in KZ_TR_TRACE_LEVELS",
             "COMPONENT:CATEGORY[=LEVEL],...", run_levels);
}

void add_map(CLI::App *pApp, int *pExitCode) {
    add_spec(pApp, pExitCode, "map", "Check a file map, as in KZ_TR_FILE_MAP", "FILE,COMPONENT:CATEGORY,...;FILE,...",
             run_map);
}

void add_sizes(CLI::App *pApp, int *pExitCode) {
    add_spec(pApp, pExitCode, "sizes", "Check sizes of trace files, as in KZ_TR_FILE_SIZE", "FILE,SIZE;FILE,SIZE;...",
             run_sizes);
}

} // namespace kztrace
