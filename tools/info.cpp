// kztrace info: what the header of a file says, and what its records are.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/format.h"

namespace kztrace {

struct info_options_t {
    std::vector<std::string> fileNames;
    bool bUtc = false;
    bool bMerge = false;
};

static void print_field(const char *pName, const std::string &value, const char *pMeaning) {
    if (*pMeaning == '\0')
        fmt::print("  {:<20}  {}\n", pName, value);
    else
        fmt::print("  {:<20}  {:<24}  {}\n", pName, value, pMeaning);
}

static std::string properties_text(uint8_t uProperties) {
    std::string text = (uProperties & TR_PROPERTY_LITTLE_ENDIAN) != 0 ? "little-endian" : "big-endian";
    if ((uProperties & TR_PROPERTY_NO_REUSE) != 0)
        text += ", never re-used";
    return text;
}

struct page_state_t {
    uint8_t state; // sp_flags
    const char *pName;
    const char *pMeaning;
};

static const page_state_t &page_state(uint8_t state) {
    static constexpr page_state_t states[] = {
        {TR_NOT_A_PAGE, "-", "not a page of a spooled set"},
        {TR_ACTIVE, "active", "active: records are written to it"},
        {TR_FULL, "full", "full: waits for its copy"},
        {TR_READY, "ready", "ready: copied, may be written again"},
        {TR_COPYING, "copying", "being copied"},
    };
    static constexpr page_state_t unknown = {0, "unknown", "unknown"};
    const auto found = std::ranges::find(states, state, &page_state_t::state);
    return found != std::end(states) ? *found : unknown;
}

// tz_offset counts west of Greenwich; people count east.
static std::string zone_text(int32_t tz_offset) {
    const int64_t east = -int64_t{tz_offset};
    const int64_t minutes = east < 0 ? -east : east;
    return fmt::format("UTC{}{:02}:{:02}", east < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

// The header is packed: 8-byte fields are copied, not referred to.
static void print_header(const trace_file_header_t &header, bool bUtc) {
    const cu_timeinfo_t timeInfo = header.timeInfo;
    print_field("uProperties", fmt::format("{:#04x}", header.uProperties), properties_text(header.uProperties).c_str());
    print_field("uPlatform", fmt::format("{}", header.uPlatform), "platform of the writer");
    print_field("uVersion", fmt::format("{}", header.uVersion), "format version");
    print_field("uFlags", fmt::format("{:#06x}", header.uFlags),
                (header.uFlags & TR_FLAG_COORDINATE) != 0 ? "the writer asks a reader to catch up" : "nothing asked");
    print_field("uNodeNumber", fmt::format("{}", header.uNodeNumber), "node within the cluster");
    print_field("uOffset", fmt::format("{}", header.uOffset), "start of the data area");
    print_field("uSeqLock", fmt::format("{}", header.uSeqLock),
                header.uSeqLock == TR_SEQ_LOCK_NONE ? "no record is held" : "record held by a reader");
    print_field("uTailReq", fmt::format("{}", header.uTailReq),
                header.uTailReq == 0 ? "no request" : "request of a reader");
    print_field("uActualFileSize", fmt::format("{}", header.uActualFileSize), "bytes");
    print_field("timeInfo", fmt::format("{}", timeInfo.timeinfo1), "ticks a second");
    print_field("", fmt::format("{}", static_cast<int64_t>(timeInfo.timeinfo2)), "ns of correction");
    print_field("machineId", fmt::format("{}", header.machineId), "machine, always 0");
    print_field("uOldestRecordOffset", fmt::format("{}", header.uOldestRecordOffset), "where reading begins");
    print_field("uPid", fmt::format("{}", header.uPid), "process that started the file");
    print_field("program", field_text(header.program, sizeof(header.program)), "");
    print_field("buildName", field_text(header.buildName, sizeof(header.buildName)), "");
    print_field("baseProgName", field_text(header.baseProgName, sizeof(header.baseProgName)), "");
    if (header.uVersion >= TR_VERSION_NODE_ID)
        print_field("uNode_ID", fmt::format("{:#018x}", uint64_t{header.uNode_ID}), "node");
    if (header.uVersion >= TR_VERSION_PAGES) {
        print_field("sp_reuse_tm",
                    header.sp_reuse_tm == 0 ? "0" : time_text(int64_t{header.sp_reuse_tm} * 1'000'000'000, bUtc),
                    header.sp_reuse_tm == 0 ? "never taken back without a copy" : "last taken back without a copy");
        print_field("sp_flags", fmt::format("{}", header.sp_flags), page_state(header.sp_flags).pMeaning);
    }
    print_field("tz_offset", fmt::format("{}", header.tz_offset), zone_text(header.tz_offset).c_str());
}

static void print_counts(const char *pTitle, const std::map<std::string, size_t> &counts) {
    fmt::print("{}\n", pTitle);
    for (const auto &[name, count] : counts)
        fmt::print("  {:<20}  {:>10}\n", name, count);
}

// What the records of a stream are. `numUnknown` further ones are of unknown kinds.
static void print_records(trread::collection_t *pFiles, uint32_t numUnknown, bool bUtc) {
    std::map<std::string, size_t> byKind, byComponent, byProcess;
    std::optional<trread::span_t> span;
    size_t numRecords = numUnknown, numCut = 0;
    if (numUnknown != 0)
        byKind["unknown"] = numUnknown;
    while (const auto *pRecord = pFiles->next()) {
        numRecords++;
        byKind[kind_name(pRecord->kind)]++;
        if (pRecord->kind == TR_KIND_RESERVED)
            continue;
        byComponent[comp_id_text(pRecord->compId)]++;
        byProcess[std::to_string(pRecord->pid)]++;
        numCut += trread::decode_body(*pRecord).bCut ? 1 : 0;
        const int64_t time_ns = pRecord->time_ns;
        span = span ? trread::span_t{std::min(span->first_ns, time_ns), std::max(span->last_ns, time_ns)}
                    : trread::span_t{time_ns, time_ns};
    }
    fmt::print("Records: {}\n", numRecords);
    if (!span)
        return;
    print_counts("By kind", byKind);
    print_counts("By component", byComponent);
    print_counts("By process", byProcess);
    if (numCut != 0)
        fmt::print("Cut: {}, which could not hold all of what was to be recorded\n", numCut);
    fmt::print("Time\n  {:<20}  {}\n  {:<20}  {}\n", "first", time_text(span->first_ns, bUtc), "last",
               time_text(span->last_ns, bUtc));
    int64_t duration_ns = 0;
    if (!__builtin_sub_overflow(span->last_ns, span->first_ns, &duration_ns))
        fmt::print("  {:<20}  {}\n", "span", duration_text(duration_ns));
}

static const char *state_text(const trread::source_t &source) {
    if (source.place.is_copy())
        return "copy";
    return source.header && source.header->uVersion >= TR_VERSION_PAGES ? page_state(source.header->sp_flags).pName
                                                                        : "-";
}

// One line a file. Their records are counted as each file has them, the same one in a page and in its copy.
static void print_sources(const std::vector<trread::source_t> &sources, bool bUtc) {
    fmt::print("{:<7}  {:>10}  {:>8}  {:<26}  {:<26}  {}\n", "state", "bytes", "records", "first", "last", "file");
    for (const auto &source : sources) {
        if (!source.bOpened)
            continue;
        fmt::print("{:<7}  {:>10}  {:>8}  {:<26}  {:<26}  {}\n", state_text(source), source.fileSize,
                   source.numRecords + source.numUnknown, source.span ? time_text(source.span->first_ns, bUtc) : "-",
                   source.span ? time_text(source.span->last_ns, bUtc) : "-", escape(source.place.path));
    }
}

static void print_info(trread::collection_t *pFiles, bool bUtc) {
    const auto &sources = pFiles->sources();
    if (sources.size() > 1) {
        print_sources(sources, bUtc);
        print_records(pFiles, 0, bUtc);
        return;
    }
    fmt::print("File: {} bytes\n", sources[0].fileSize);
    if (sources[0].header) {
        fmt::print("Header\n");
        print_header(*sources[0].header, bUtc);
        print_records(pFiles, sources[0].numUnknown, bUtc);
    }
}

void add_info(CLI::App *pApp, int *pExitCode) {
    auto pOptions = std::make_shared<info_options_t>();
    CLI::App *pCommand =
        pApp->add_subcommand("info", "Print the header of trace files and what kinds of records they hold");
    pCommand->add_option("FILE", pOptions->fileNames, FILES_HELP)->required();
    pCommand->add_flag("-u,--utc", pOptions->bUtc, "Show times in UTC instead of local time");
    pCommand->add_flag("-m,--merge", pOptions->bMerge, MERGE_HELP);
    pCommand->footer(
        "Shows each field of the file header with its meaning, how many records there are of each kind, of\n"
        "each component and of each process, and the time that they span. For several files that belong\n"
        "together there is one line a file instead of the header; the counts below take a record once that is\n"
        "in a page and in its copy, and leave out unknown kinds. Damage is reported on standard error.");
    pCommand->callback([pOptions, pExitCode] {
        const bool bUtc = pOptions->bUtc;
        *pExitCode = show_files(pOptions->fileNames, pOptions->bMerge,
                                [bUtc](trread::collection_t *pFiles) { print_info(pFiles, bUtc); });
    });
}

} // namespace kztrace
