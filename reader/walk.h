// Walks the chain of records in one copy of a file, and compares the chains of two copies. Private to the reader.
//
//   header | 200 ...newest | free | oldest ... ... filler | end        the chain: free, oldest, ..., end, 200, ...,
//   newest
//                          ^ uOldestRecordOffset
//
// A copy is not made at one moment: the writer may have moved on between the reading of two of its bytes. What a
// single copy shows is therefore only a claim. It is worth something when the sequence numbers follow each other from
// the oldest record on, because the writer numbers a record anew before it stores anything behind its header.
#ifndef KZ_READER_WALK_H
#define KZ_READER_WALK_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "reader/reader.h"

namespace trread {

// One record as the chain passes it.
struct link_t {
    uint32_t offset; // bytes from the start of the file
    uint32_t length;
    uint16_t function;
    uint32_t seqNumber;
    bool operator==(const link_t &) const = default;
};

// The chain of one copy, in the order of writing, free records left out.
struct chain_t {
    std::vector<link_t> links;   // from the oldest record on, as far as chain and sequence numbers are whole
    std::vector<link_t> salvage; // what can be reached behind the first fault; true only if nobody writes
    std::vector<fault_t> faults;
    bool bWhole = false; // the chain closes and its numbers follow each other: nothing to salvage
};

// What the records that follow take from the records before them.
struct base_t {
    cu_timeinfo_t timeInfo;
    uint32_t pid;
};

// The file header, or nothing when the file is too short for one.
std::optional<trace_file_header_t> header_of(std::span<const std::byte> bytes);

// Whether a header is one of a file that can be walked at all; the fault if not. Does not look at the oldest offset.
std::optional<fault_t> check_header(std::span<const std::byte> bytes);

// Walks a copy. `bytes` holds the file from its start, and at most to the end of its data area; `fileSize` is the size
// of the whole file. Always ends: each step goes forward by a record header at least.
chain_t walk_chain(std::span<const std::byte> bytes, uint64_t fileSize);

// The records of an earlier chain that a later one still shows with the same header, up to the first that has changed.
std::vector<link_t> common_links(const chain_t &earlier, const chain_t &later);

// Appends to the batch the records of a copy that the links name. `pBase` is in force before them, and is brought up
// to what is in force behind them.
void append_records(std::span<const std::byte> bytes, std::span<const link_t> links, base_t *pBase, batch_t *pBatch);

} // namespace trread

#endif
