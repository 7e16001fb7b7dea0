// kztrace config: the spooling entries that a configuration yields, what in it does not mean what it seems to mean, and
// which entry governs a trace file. The readers are the library's own; nothing is set, and no directory is made.
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/format.h"
#include "tools/specs.h"
#include "trace/frame/frame.h"
#include "trace/spool/config.h"
#include "trace/spool/spool.h"

namespace kztrace {

struct config_options_t {
    std::string file = TR_SPOOL_CONFIG_FILE;
    std::optional<std::string> text; // instead of the file
    std::optional<std::string> match;
    std::string program = "PROGRAM";
};

// What a configuration yields.
struct reading_t {
    trace_spool_spec_t *pFirst = nullptr;
    trace_spool_spec_t *pLast = nullptr;
    spool_findings_t findings = {};

    reading_t() = default;
    reading_t(const reading_t &) = delete;
    reading_t &operator=(const reading_t &) = delete;
    ~reading_t() {
        free_spool_findings(&findings);
        free_spool_spec_linked_list(pFirst);
    }
    void read(const config_options_t &options) {
        if (options.text)
            (void)read_spool_text(options.text->c_str(), {&pFirst, &pLast}, &findings); // faults are findings
        else
            (void)read_spool_file(options.file.c_str(), {&pFirst, &pLast}, &findings);
    }
    // The finding that tells of an entry; null for a twin.
    const spool_finding_t *stored(const trace_spool_spec_t *pSpec) const {
        const spool_finding_t *pFinding = findings.pFirst;
        while (pFinding != nullptr && pFinding->pSpec != pSpec)
            pFinding = pFinding->pNext;
        return pFinding;
    }
};

// ---- Entries ----

// Entries are numbered in their order, twins included.
static size_t number_of(const reading_t &reading, const trace_spool_spec_t *pSpec) {
    size_t number = 1;
    for (const auto *pOther = reading.pFirst; pOther != pSpec; pOther = pOther->pNext)
        number++;
    return number;
}

static void print_spool_entries(const config_options_t &options, const reading_t &reading) {
    std::vector<row_t> rows = {{"entry", options.text ? "" : "stanza", "pattern", "spooling", "pages", "page size",
                                "interval", "destination"}};
    for (const auto *pSpec = reading.pFirst; pSpec != nullptr; pSpec = pSpec->pNext) {
        const size_t number = rows.size();
        const auto *pStored = reading.stored(pSpec);
        rows.push_back({std::to_string(number),
                        pStored != nullptr ? visible(pStored->name) : fmt::format("twin of {}", number - 1),
                        visible(pSpec->pattern), pSpec->onoff != 0 ? "on" : "off", std::to_string(pSpec->pages),
                        pSpec->pg_size != 0 ? std::to_string(pSpec->pg_size) : "as file",
                        fmt::format("{} s", pSpec->sync_interval), visible(pSpec->dest)});
    }
    print_entries(rows);
}

// Says why an entry governs no file, where that is so.
static void check_entry(size_t number, const trace_spool_spec_t *pSpec) {
    regex_t expression;
    const int rc = regcomp(&expression, pSpec->pattern, TR_SPOOL_REGEX | REG_NOSUB);
    if (rc != 0) {
        char reason[256];
        (void)regerror(rc, &expression, reason, sizeof reason);
        fmt::print(stderr, "kztrace: warning: entry {} governs no file, its pattern is no expression: {}\n", number,
                   reason);
        return;
    }
    regfree(&expression);
    if (pSpec->pages < 2)
        fmt::print(stderr, "kztrace: warning: entry {} governs no file, it has fewer than 2 pages\n", number);
}

// ---- Findings ----

static std::string system_text(int64_t error) {
    return std::generic_category().message(static_cast<int>(error));
}

// " Stanza x still lacks pages, dest." Empty when it lacks nothing.
static std::string lacking(const spool_finding_t &finding) {
    std::string names;
    for (const auto &field : spool_fields) {
        if ((field.flag & TR_FIELDS_REQUIRED & ~static_cast<uint32_t>(finding.value)) != 0)
            names += std::string(names.empty() ? "" : ", ") + field.pName;
    }
    return names.empty() ? "" : fmt::format("; stanza {} still lacks {}", quote(finding.name), names);
}

static std::string finding_text(const spool_finding_t &finding) {
    switch (finding.kind) {
    case TR_SPOOL_CANNOT_OPEN:
        return fmt::format("cannot be opened: {}", system_text(finding.value));
    case TR_SPOOL_NO_HEADING:
        return "a heading is due here, a line NAME: that begins a stanza";
    case TR_SPOOL_NOT_A_FIELD:
        return "neither a heading nor a field (NAME = VALUE; in a value stand letters, digits, - _ / * . and, at its "
               "end, $)" +
               lacking(finding);
    case TR_SPOOL_UNKNOWN_FIELD:
        return "no field has this name" + lacking(finding);
    case TR_SPOOL_FIELD_TWICE:
        return fmt::format("stanza {} has this field already", quote(finding.name));
    case TR_SPOOL_NO_SEPARATOR:
        return fmt::format("a \":\" is missing behind the {}", finding.name);
    case TR_SPOOL_EMPTY:
        return fmt::format("the {} is empty", finding.name);
    case TR_SPOOL_TOO_LONG:
        return fmt::format("the {} has more than {} characters", finding.name, finding.value);
    case TR_SPOOL_NO_SWITCH:
        return "the switch is neither ON nor OFF";
    case TR_SPOOL_COMMENT:
        return "warning: this \"#\" makes all of the line a comment";
    case TR_SPOOL_CHANGED:
        return fmt::format("warning: {} = {} counts as {}", finding.name, visible(finding.text),
                           strcmp(finding.name, "spooling") == 0 ? "off" : std::to_string(finding.value));
    case TR_SPOOL_INCOMPLETE:
        return "warning: the file ends within a stanza, which is dropped" + lacking(finding);
    case TR_SPOOL_LONG_LINE:
        return fmt::format("warning: the line is longer than {} characters; what follows them counts as another line",
                           TR_SPOOL_LINE_SIZE - 1);
    case TR_SPOOL_READ_ERROR:
        return fmt::format("cannot be read to its end: {}", system_text(finding.value));
    default:
        return "memory is short";
    }
}

static void report_finding(const config_options_t &options, const spool_finding_t &finding) {
    if (options.text)
        return report_at(*options.text, finding.place.offset, finding_text(finding));
    const std::string line = finding.text;
    const std::string where =
        finding.place.line != 0 ? fmt::format("{}:{}", options.file, finding.place.line) : options.file;
    const bool bShown = !line.empty() && finding.kind != TR_SPOOL_CHANGED;
    if (!bShown)
        return report(where, finding_text(finding));
    const char *const pReturn = line.ends_with('\r') ? "; the line ends with a carriage return" : "";
    report_at(line, finding.place.offset, fmt::format("{}: {}{}", escape(where), finding_text(finding), pReturn));
}

static void report_consequence(const config_options_t &options, bool bSomeStay) {
    const char *pText = "no trace file is spooled";
    if (bSomeStay)
        pText = options.text ? "the entries above stay in force, the text from the faulty one on is without effect"
                             : "programs that start now use the entries above, running ones keep those they have";
    fmt::print(stderr, "kztrace: {}\n", pText);
}

// Returns the exit code.
static int report_findings(const config_options_t &options, const reading_t &reading) {
    int exitCode = EXIT_OK;
    for (const auto *pFinding = reading.findings.pFirst; pFinding != nullptr; pFinding = pFinding->pNext) {
        if (pFinding->kind == TR_SPOOL_ENTRY)
            continue;
        report_finding(options, *pFinding);
        if (is_spool_fault(pFinding->kind) || pFinding->kind == TR_SPOOL_READ_ERROR)
            exitCode = EXIT_FAULT;
    }
    if (exitCode != EXIT_OK)
        report_consequence(options, reading.pFirst != nullptr);
    size_t number = 0;
    for (const auto *pSpec = reading.pFirst; pSpec != nullptr; pSpec = pSpec->pNext)
        check_entry(++number, pSpec);
    return exitCode;
}

// ---- The governing entry ----

static std::string destination_text(const config_options_t &options, const trace_spool_spec_t *pSpec) {
    if (pSpec->onoff == 0)
        return "which is off: it is kept in pages, which are copied nowhere";
    if (strcmp(pSpec->dest, TR_NOWHERE) == 0)
        return "whose pages are copied nowhere";
    const auto pDir = std::make_unique<spool_dir_t>();
    if (lockGlobalMutex() != 0)
        return "but the library's lock failed";
    compute_spool_dir(pSpec->dest, options.match->c_str(), options.program.c_str(), pDir.get());
    (void)unlockGlobalMutex();
    if (pDir->bTooLong)
        return fmt::format("whose directory would have a path of more than {} characters: it is switched off",
                           TR_NAME_SIZE - 1);
    return fmt::format("whose pages go to {}", visible(pDir->path));
}

static void print_match(const config_options_t &options, const reading_t &reading) {
    const auto *const pSpec = find_spool_spec(options.match->c_str(), reading.pFirst);
    const std::string name = visible(*options.match);
    if (pSpec == nullptr)
        fmt::print("{} is governed by no entry: it is not spooled\n", name);
    else
        fmt::print("{} is governed by entry {}, {}\n", name, number_of(reading, pSpec),
                   destination_text(options, pSpec));
}

static int run_config(const config_options_t &options) {
    reading_t reading;
    reading.read(options);
    print_spool_entries(options, reading);
    if (reading.findings.pFirst == nullptr)
        fmt::print("there is no entry: no trace file is spooled\n");
    if (options.match)
        print_match(options, reading);
    (void)fflush(stdout);
    return report_findings(options, reading);
}

void add_config(CLI::App *pApp, int *pExitCode) {
    auto pOptions = std::make_shared<config_options_t>();
    CLI::App *pCommand = pApp->add_subcommand("config", "Check a spooling configuration, as in " +
                                                            std::string(TR_SPOOL_CONFIG_FILE) + " or KZ_TR_SPOOL");
    auto *pFile = pCommand->add_option("FILE", pOptions->file, "Configuration file")->capture_default_str();
    pCommand
        ->add_option("--text", pOptions->text,
                     "Check a text as in KZ_TR_SPOOL instead: PATTERN:ON|OFF:PAGES:DIRECTORY,...")
        ->excludes(pFile);
    auto *pMatch = pCommand->add_option("--match", pOptions->match,
                                        "Tell which entry governs a trace file, and where its pages go");
    pCommand->add_option("--program", pOptions->program, "The program that writes that file")
        ->needs(pMatch)
        ->capture_default_str();
    pCommand->footer(
        "Nothing is set, and no directory is made: the configuration is read as the library reads it. The\n"
        "entries go to standard output; what is wrong, or does not mean what it seems to, to standard error.");
    pCommand->callback([pOptions, pExitCode] { *pExitCode = run_config(*pOptions); });
}

} // namespace kztrace
