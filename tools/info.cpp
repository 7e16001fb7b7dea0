// kztrace info: what the header of a file says, and what its records are.
#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "tools/commands.h"
#include "tools/format.h"

namespace kztrace {

struct info_options_t {
    std::vector<std::string> fileNames;
    bool bUtc = false;
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

static const char *page_state_text(uint8_t state) {
    switch (state) {
    case TR_NOT_A_PAGE:
        return "not a page of a spooled set";
    case TR_ACTIVE:
        return "active: records are written to it";
    case TR_FULL:
        return "full: waits for its copy";
    case TR_READY:
        return "ready: copied, may be written again";
    case TR_COPYING:
        return "being copied";
    default:
        return "unknown";
    }
}

// tz_offset counts west of Greenwich; people count east.
static std::string zone_text(int32_t tz_offset) {
    const int64_t east = -int64_t{tz_offset};
    const int64_t minutes = east < 0 ? -east : east;
    return fmt::format("UTC{}{:02}:{:02}", east < 0 ? '-' : '+', minutes / 60, minutes % 60);
}

static void print_header(const trread::batch_t &batch, bool bUtc) {
    const trace_file_header_t &header = *batch.header; // packed: 8-byte fields are copied, not referred to
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
        print_field("sp_flags", fmt::format("{}", header.sp_flags), page_state_text(header.sp_flags));
    }
    print_field("tz_offset", fmt::format("{}", header.tz_offset), zone_text(header.tz_offset).c_str());
}

static void print_counts(const char *pTitle, const std::map<std::string, size_t> &counts) {
    fmt::print("{}\n", pTitle);
    for (const auto &[name, count] : counts)
        fmt::print("  {:<20}  {:>10}\n", name, count);
}

static void print_records(const trread::batch_t &batch, bool bUtc) {
    std::map<std::string, size_t> byKind, byComponent, byProcess;
    std::vector<int64_t> times_ns;
    size_t numCut = 0;
    if (batch.numUnknown != 0)
        byKind["unknown"] = batch.numUnknown;
    for (const auto &record : batch.records) {
        byKind[kind_name(record.kind)]++;
        if (record.kind == TR_KIND_RESERVED)
            continue;
        byComponent[comp_id_text(record.compId)]++;
        byProcess[std::to_string(record.pid)]++;
        numCut += trread::decode_body(record).bCut ? 1 : 0;
        times_ns.push_back(record.time_ns);
    }
    fmt::print("Records: {}\n", batch.records.size() + batch.numUnknown);
    if (times_ns.empty())
        return;
    print_counts("By kind", byKind);
    print_counts("By component", byComponent);
    print_counts("By process", byProcess);
    if (numCut != 0)
        fmt::print("Cut: {}, which could not hold all of what was to be recorded\n", numCut);
    const auto [first, last] = std::minmax_element(times_ns.begin(), times_ns.end());
    fmt::print("Time\n  {:<20}  {}\n  {:<20}  {}\n", "first", time_text(*first, bUtc), "last", time_text(*last, bUtc));
    int64_t span_ns = 0;
    if (!__builtin_sub_overflow(*last, *first, &span_ns))
        fmt::print("  {:<20}  {}\n", "span", duration_text(span_ns));
}

static int run_info(const info_options_t &options) {
    int exitCode = EXIT_OK;
    for (size_t i = 0; i < options.fileNames.size(); i++) {
        const std::string &fileName = options.fileNames[i];
        const auto batch = read_file(fileName);
        if (!batch) {
            exitCode = EXIT_FAULT;
            continue;
        }
        print_heading(fileName, i, options.fileNames.size());
        fmt::print("File: {} bytes\n", batch->fileSize);
        if (batch->header) {
            fmt::print("Header\n");
            print_header(*batch, options.bUtc);
            print_records(*batch, options.bUtc);
        }
        if (report_faults(fileName, *batch) != EXIT_OK)
            exitCode = EXIT_FAULT;
    }
    return exitCode;
}

void add_info(CLI::App *pApp, int *pExitCode) {
    auto pOptions = std::make_shared<info_options_t>();
    CLI::App *pCommand =
        pApp->add_subcommand("info", "Print the header of trace files and what kinds of records they hold");
    pCommand->add_option("FILE", pOptions->fileNames, "Trace files, also while they are being written")->required();
    pCommand->add_flag("-u,--utc", pOptions->bUtc, "Show times in UTC instead of local time");
    pCommand->footer(
        "Shows each field of the file header with its meaning, how many records there are of each kind, of\n"
        "each component and of each process, and the time that they span. Damage is reported on standard\n"
        "error.");
    pCommand->callback([pOptions, pExitCode] { *pExitCode = run_info(*pOptions); });
}

} // namespace kztrace
