// kztrace dump: one line a record, and on demand the data blocks in lines of their own.
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/format.h"

namespace kztrace {

struct dump_options_t {
    std::vector<std::string> fileNames;
    std::string hex = "short"; // or "full", "off"
    size_t maxBytes = 16;
    bool bUtc = false;
    bool bMerge = false;
};

static void append_line(fmt::memory_buffer *pOut, const trread::record_t &record, const dump_options_t &options) {
    const auto out = fmt::appender(*pOut);
    if (record.kind == TR_KIND_RESERVED) { // the rest of its header is not to be trusted
        fmt::format_to(out, "{:<26}  {:<4}  {:<10}  {}\n", "-", "-", "-", kind_name(record.kind));
        return;
    }
    fmt::format_to(out, "{}  {}  {:#010x}  {:<12}  {:>10}  ", time_text(record.time_ns, options.bUtc),
                   comp_id_text(record.compId), record.threadId, kind_name(record.kind),
                   record.traceId ? std::to_string(*record.traceId) : "-");
    const auto body = trread::decode_body(record);
    append_body(pOut, body, {options.hex == "short", options.maxBytes});
    while (pOut->size() != 0 && (*pOut)[pOut->size() - 1] == ' ') // of a record without body
        pOut->resize(pOut->size() - 1);
    pOut->push_back('\n');
    if (options.hex == "full")
        append_block_rows(pOut, body);
}

static int run_dump(const dump_options_t &options) {
    return show_files(options.fileNames, options.bMerge, [&options](trread::collection_t *pFiles) {
        while (const auto *pRecord = pFiles->next()) {
            fmt::memory_buffer line;
            append_line(&line, *pRecord, options);
            (void)fwrite(line.data(), 1, line.size(), stdout); // the end of the program looks for failures
        }
    });
}

void add_dump(CLI::App *pApp, int *pExitCode) {
    auto pOptions = std::make_shared<dump_options_t>();
    CLI::App *pCommand = pApp->add_subcommand("dump", "Print the records of trace files, one line a record");
    pCommand->add_option("FILE", pOptions->fileNames, FILES_HELP)->required();
    pCommand->add_flag("-u,--utc", pOptions->bUtc, "Show times in UTC instead of local time");
    pCommand->add_flag("-m,--merge", pOptions->bMerge, MERGE_HELP);
    pCommand
        ->add_option("-x,--hex", pOptions->hex,
                     "Show data blocks in lines of 16 bytes below the record (full), on its line, as far as\n"
                     "--bytes goes (short, the default), or only their sizes (off)")
        ->check(CLI::IsMember({"full", "short", "off"}))
        ->type_name("FORM");
    pCommand
        ->add_option("-b,--bytes", pOptions->maxBytes,
                     "Show up to N bytes of a block in short form (default 16, 0: all)")
        ->type_name("N");
    pCommand->footer(
        "Columns: time, component, thread, kind, trace identifier, and what was recorded. Values of 10 and\n"
        "more are shown as signed decimal and hexadecimal; control characters in texts as \\xNN. The message\n"
        "of an error is its default text with the inserts; where the two do not go together, both are shown\n"
        "as well. (cut) stands behind a record that could not hold all of what was to be recorded.\n"
        "Damage is reported on standard error behind the records that could be read.");
    pCommand->callback([pOptions, pExitCode] {
        if (pOptions->maxBytes == 0)
            pOptions->maxBytes = std::numeric_limits<size_t>::max();
        *pExitCode = run_dump(*pOptions);
    });
}

} // namespace kztrace
