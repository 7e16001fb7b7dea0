#include "reader/walk.h"

#include <algorithm>
#include <bit>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "reader/decode.h"
#include "reader/time.h"

namespace trread {

// A copy and where its ring ends.
struct ring_t {
    std::span<const std::byte> bytes;
    uint64_t end;    // the data area's, as the header tells it
    uint64_t oldest; // offset
};

[[gnu::format(printf, 3, 4)]] static fault_t make_fault(fault_kind_t kind, uint64_t offset, const char *pFormat, ...) {
    char text[200];
    va_list args;
    va_start(args, pFormat);
    (void)vsnprintf(text, sizeof(text), pFormat, args); // cut when too long
    va_end(args);
    return {kind, offset, text};
}

std::optional<trace_file_header_t> header_of(std::span<const std::byte> bytes) {
    if (bytes.size() < sizeof(trace_file_header_t))
        return std::nullopt;
    trace_file_header_t header;
    memcpy(&header, bytes.data(), sizeof(header));
    return header;
}

// A header that is no use as it stands is one of the other byte order when it makes sense with its bytes turned.
static bool has_other_byte_order(const trace_file_header_t &header) {
    const bool bLittle = (header.uProperties & TR_PROPERTY_LITTLE_ENDIAN) != 0;
    return bLittle != (std::endian::native == std::endian::little) &&
           __builtin_bswap32(header.uOffset) == TR_DATA_OFFSET;
}

std::optional<fault_t> check_header(std::span<const std::byte> bytes) {
    const auto header = header_of(bytes);
    if (!header)
        return make_fault(fault_kind_t::too_short, 0, "too short for a trace file: %zu bytes, the header takes %zu",
                          bytes.size(), sizeof(trace_file_header_t));
    if (has_other_byte_order(*header))
        return make_fault(fault_kind_t::byte_order, offsetof(trace_file_header_t, uProperties),
                          "written on a machine of the other byte order, which this program cannot read");
    if (header->uOffset != TR_DATA_OFFSET)
        return make_fault(fault_kind_t::data_offset, offsetof(trace_file_header_t, uOffset),
                          "not a trace file, or not started yet: its data area begins at %" PRIu32
                          " instead of %" PRIu32,
                          header->uOffset, TR_DATA_OFFSET);
    if (header->uVersion > TR_VERSION)
        return make_fault(fault_kind_t::version, offsetof(trace_file_header_t, uVersion),
                          "format version %u is newer than this program, which reads versions up to %u",
                          header->uVersion, TR_VERSION);
    if (header->uActualFileSize < TR_DATA_OFFSET + TR_HEADER_LENGTH)
        return make_fault(fault_kind_t::too_short, offsetof(trace_file_header_t, uActualFileSize),
                          "the size in the header, %" PRIu32 " bytes, leaves no room for records",
                          header->uActualFileSize);
    return std::nullopt;
}

static bool is_free(const link_t &link, const std::vector<link_t> &before) {
    if (link.seqNumber == TR_SEQ_FREE)
        return true;
    // A file without records, and a page that holds its note only, have a free record that is numbered 0.
    return link.function == TR_KIND_FREE && link.seqNumber == 0 && (before.empty() || before.back().seqNumber == 0);
}

// Steps from the record at `start` to a record that begins exactly at `stop`, which lies in the ring or at its end.
// Returns what stopped it before.
static std::optional<fault_t> walk_segment(const ring_t &ring, uint64_t start, uint64_t stop,
                                           std::vector<link_t> *pLinks) {
    for (uint64_t offset = start; offset != stop;) {
        if (offset + TR_HEADER_LENGTH > ring.bytes.size())
            return make_fault(fault_kind_t::past_end, offset,
                              "the file ends where a record at offset %" PRIu64 " begins", offset);
        trace_record_header_t head;
        memcpy(&head, ring.bytes.data() + offset, sizeof(head));
        if (head.length < TR_HEADER_LENGTH)
            return make_fault(fault_kind_t::length, offset, "the record at offset %" PRIu64 " has the length %" PRIu32,
                              offset, head.length);
        if (head.seqNumber % 2 != 0 && head.seqNumber != TR_SEQ_FREE)
            return make_fault(fault_kind_t::sequence, offset,
                              "the record at offset %" PRIu64 " has the odd sequence number %" PRIu32, offset,
                              head.seqNumber);
        const uint64_t next = offset + head.length; // 64 bits: cannot wrap
        if (next > stop && stop != ring.end)
            return make_fault(fault_kind_t::straddle, offset,
                              "the record at offset %" PRIu64 " (length %" PRIu32
                              ") runs across the start of the oldest record at %" PRIu64,
                              offset, head.length, stop);
        if (next > ring.end || (next != ring.end && ring.end - next < TR_HEADER_LENGTH))
            return make_fault(fault_kind_t::past_end, offset,
                              "the record at offset %" PRIu64 " (length %" PRIu32
                              ") does not fit the end of the data area at %" PRIu64,
                              offset, head.length, ring.end);
        if (next > ring.bytes.size())
            return make_fault(fault_kind_t::past_end, offset,
                              "the file ends within the record at offset %" PRIu64 " (length %" PRIu32 ")", offset,
                              head.length);
        const link_t link{static_cast<uint32_t>(offset), head.length, head.function, head.seqNumber};
        if (!is_free(link, *pLinks))
            pLinks->push_back(link);
        offset = next;
    }
    return std::nullopt;
}

static bool follows(const link_t &link, const link_t &before) {
    return link.seqNumber == before.seqNumber + TR_SEQ_STEP; // 32 bits: the numbers wrap
}

// The first place at which the sequence numbers do not follow each other, or the end.
static std::vector<link_t>::iterator find_gap(std::vector<link_t> *pLinks) {
    const auto gap = std::adjacent_find(pLinks->begin(), pLinks->end(), [](const link_t &before, const link_t &link) {
        return !follows(link, before);
    });
    return gap == pLinks->end() ? gap : gap + 1;
}

// The one place where the chain is not in the order of writing: its two ends.
static void order_ends(const ring_t &ring, bool bClosed, std::vector<link_t> *pLinks) {
    if (pLinks->size() < 2)
        return;
    // While it takes over space, the writer's newest record is the head of the chain: unfinished, and for a moment with
    // the number of the record that stood there.
    const link_t head = pLinks->front();
    if (head.function == TR_KIND_RESERVED && !follows((*pLinks)[1], head)) {
        pLinks->erase(pLinks->begin());
        if (bClosed && follows(head, pLinks->back()))
            pLinks->push_back(head);
    }
    // The note at the front of a page stays there. In a page filled to its end the oldest record stands behind it.
    const link_t note = pLinks->back();
    if (bClosed && note.offset == TR_DATA_OFFSET && note.function == TR_KIND_STRING && note.seqNumber == 0 &&
        ring.oldest == note.offset + note.length)
        std::rotate(pLinks->begin(), pLinks->end() - 1, pLinks->end());
}

// Without an oldest offset: the front of the data area is the start of a record, and where the sequence numbers break
// the oldest record begins.
static void salvage_from_front(const ring_t &ring, chain_t *pChain) {
    const auto fault = walk_segment(ring, TR_DATA_OFFSET, ring.end, &pChain->salvage);
    if (fault)
        pChain->faults.push_back(*fault);
    const auto gap = find_gap(&pChain->salvage);
    std::rotate(pChain->salvage.begin(), gap, pChain->salvage.end());
}

// From the oldest record to the end, and from the front back to the oldest record. A fault in the first part leaves
// the second to be salvaged, as it begins anew at a known place.
static bool walk_both_parts(const ring_t &ring, chain_t *pChain) {
    const auto faultFirst = walk_segment(ring, ring.oldest, ring.end, &pChain->links);
    if (faultFirst)
        pChain->faults.push_back(*faultFirst);
    const auto faultSecond =
        walk_segment(ring, TR_DATA_OFFSET, ring.oldest, faultFirst ? &pChain->salvage : &pChain->links);
    if (faultSecond)
        pChain->faults.push_back(*faultSecond);
    return !faultFirst && !faultSecond;
}

chain_t walk_chain(std::span<const std::byte> bytes, uint64_t fileSize) {
    chain_t chain;
    if (auto fault = check_header(bytes)) {
        chain.faults.push_back(std::move(*fault));
        return chain;
    }
    const trace_file_header_t header = *header_of(bytes);
    const ring_t ring{bytes, header.uActualFileSize, header.uOldestRecordOffset};
    if (ring.end != fileSize)
        chain.faults.push_back(make_fault(fault_kind_t::file_size, offsetof(trace_file_header_t, uActualFileSize),
                                          "the file has %" PRIu64 " bytes, its header says %" PRIu64, fileSize,
                                          ring.end));
    if (ring.oldest < TR_DATA_OFFSET || ring.oldest + TR_HEADER_LENGTH > ring.end) {
        chain.faults.push_back(
            make_fault(fault_kind_t::oldest_offset, offsetof(trace_file_header_t, uOldestRecordOffset),
                       "the offset of the oldest record, %" PRIu64 ", lies outside of the data area", ring.oldest));
        salvage_from_front(ring, &chain);
        return chain;
    }
    const bool bClosed = walk_both_parts(ring, &chain);
    order_ends(ring, bClosed, &chain.links);
    const auto gap = find_gap(&chain.links);
    if (gap == chain.links.end()) {
        chain.bWhole = bClosed;
        return chain;
    }
    if (bClosed) // behind another fault a gap says nothing new
        chain.faults.push_back(make_fault(fault_kind_t::sequence_gap, gap->offset,
                                          "the sequence numbers jump from %" PRIu32 " to %" PRIu32
                                          " at the record at offset %" PRIu32,
                                          (gap - 1)->seqNumber, gap->seqNumber, gap->offset));
    chain.salvage.insert(chain.salvage.begin(), gap, chain.links.end());
    chain.links.erase(gap, chain.links.end());
    return chain;
}

std::vector<link_t> common_links(const chain_t &earlier, const chain_t &later) {
    if (later.links.empty())
        return {};
    // The writer overwrites from the oldest on: what is left of the earlier chain begins with the later one's first.
    const auto begin = std::find(earlier.links.begin(), earlier.links.end(), later.links.front());
    const auto end = std::mismatch(begin, earlier.links.end(), later.links.begin(), later.links.end()).first;
    return {begin, end};
}

void append_records(std::span<const std::byte> bytes, std::span<const link_t> links, base_t *pBase, batch_t *pBatch) {
    for (const link_t &link : links) {
        if (link.function == TR_KIND_FREE) // a filler
            continue;
        if (!is_known_kind(link.function)) {
            pBatch->numUnknown++;
            continue;
        }
        const auto recordBytes = bytes.subspan(link.offset, link.length);
        if (const auto start = start_of(link.function, recordBytes))
            *pBase = {start->timeInfo, start->pid};
        trace_record_header_t head;
        memcpy(&head, recordBytes.data(), sizeof(head));
        record_t record{
            .kind = link.function,
            .offset = link.offset,
            .seqNumber = link.seqNumber,
            .compId = {},
            .threadId = head.threadId,
            .timeStamp = head.timeStamp,
            .time_ns = time_of_stamp(head.timeStamp, pBase->timeInfo),
            .pid = pBase->pid,
            .traceId = trace_id_of(link.function, recordBytes),
            .bytes = recordBytes,
        };
        memcpy(record.compId.data(), head.compId, sizeof(head.compId));
        pBatch->records.push_back(record);
    }
}

} // namespace trread
