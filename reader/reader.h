// Reads trace files: opens one, checks it, and hands out its records in the order of writing.
//
// A file may be written while it is read. Nothing is read through a mapping: the reader copies the file into its own
// memory and believes a record only when a second copy shows it unchanged in its place, so a record that the writer was
// overwriting meanwhile is never handed out torn. No length or offset in the file is trusted.
//
// Two ways to read:
// - `read_all` hands out everything that the file holds now;
// - `poll`, called again and again, hands out what has been written since the call before.
//
// Both return a batch: records, and faults as data. A damaged file yields what is readable. A record is a view into
// the bytes of its batch; records of several batches may be sorted together as long as the batches are kept.
// `decode_body` (reader/decode.h) turns the bytes of a record into values and texts.
#ifndef KZ_READER_READER_H
#define KZ_READER_READER_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "trace/trace_format.h"

namespace trread {

enum class fault_kind_t {
    io,            // the file cannot be read
    too_short,     // shorter than a file header, or no room for a record
    byte_order,    // written on a machine of the other byte order; not read
    version,       // a format newer than this reader; not read
    data_offset,   // the data area does not begin where the format wants it: no trace file, or not started yet
    file_size,     // the size in the header is not the file's
    oldest_offset, // the header's uOldestRecordOffset lies outside of the data area
    length,        // a record is shorter than its header
    past_end,      // a record passes the end of the data area or of the file
    sequence,      // an odd sequence number
    straddle,      // a record runs across the offset at which the oldest record begins
    sequence_gap,  // the sequence numbers do not follow each other
    unstable,      // the file changes faster than it can be read; the batch is what could be had
};

// One thing that is wrong with a file.
struct fault_t {
    fault_kind_t kind;
    uint64_t offset;  // bytes from the start of the file
    std::string text; // for people; complete in itself
};

// One record. Free and filler records and records of unknown kinds are not handed out.
struct record_t {
    uint16_t kind;   // TR_KIND_*; TR_KIND_RESERVED: never finished, see below
    uint32_t offset; // bytes from the start of the file
    uint32_t seqNumber;
    std::array<char, TR_COMP_ID_SIZE> compId; // as it stands in the file: any bytes, no terminator
    uint32_t threadId;
    uint64_t timeStamp;               // ticks
    int64_t time_ns;                  // timeStamp as nanoseconds since 1970 (UTC), by the time base in force
    uint32_t pid;                     // process that wrote it: of the latest start record, or of the file header
    std::optional<uint32_t> traceId;  // for kinds that have one
    std::span<const std::byte> bytes; // the whole record, header included; lives as long as the batch
};
// Of a record of kind TR_KIND_RESERVED only kind, offset and seqNumber mean something: its writer has not finished it
// or died over it, and the rest may be what an older record left behind.

// The bytes of a file as they were at one time.
struct image_t {
    std::vector<std::byte> bytes; // up to the end of the data area, or less when the file has less
    uint64_t fileSize = 0;        // bytes of the whole file
};

// What one call has read.
struct batch_t {
    std::vector<record_t> records;             // in the order of writing
    std::vector<fault_t> faults;               // empty: the file is whole
    std::optional<trace_file_header_t> header; // when the file is long enough; in the machine's byte order
    uint64_t fileSize = 0;                     // bytes
    uint32_t numUnknown = 0;                   // records of unknown kinds, left out
    uint32_t numLost = 0;    // poll: sequence numbers (fillers count) overwritten before they could be read
    bool bRestarted = false; // poll: the file has been initialised anew; the records are those of the new life
    std::shared_ptr<const image_t> pImage; // what `bytes` of the records point into
};

// An open trace file, and how far `poll` has come in it. One thread at a time.
class trace_file_t {
  public:
    // Opens a file for reading; never waits and never becomes a terminal's process.
    //
    // path     a regular file; anything else (directory, FIFO, device) is refused
    // pReason  receives why it failed; not null
    //
    // Returns nothing on failure. The contents are looked at by `read_all` and `poll` only.
    static std::optional<trace_file_t> open(const std::string &path, std::string *pReason);

    trace_file_t(trace_file_t &&other) noexcept;
    trace_file_t &operator=(trace_file_t &&other) noexcept;
    trace_file_t(const trace_file_t &) = delete;
    trace_file_t &operator=(const trace_file_t &) = delete;
    ~trace_file_t();

    // The file header as it is now; nothing when the file is too short or cannot be read. Costs one read.
    std::optional<trace_file_header_t> read_header() const;

    // Hands out everything that the file holds now, without the newest record while the file does not hold still. Does
    // not touch what `poll` remembers.
    batch_t read_all() const;

    // Hands out what was written since the last call; the first call hands out everything. An unfinished record at the
    // end is kept back until it is finished, or until a newer one shows that it never will be. `numLost` and
    // `bRestarted` tell when the writer was faster. Cheap when nothing has changed: the batch is then empty, without a
    // header. Faults come with each call as long as they last.
    batch_t poll();

  private:
    // What the last poll has left behind.
    struct follow_t {
        uint32_t seqNumber;                           // the last record handed out or passed over
        uint32_t offset;                              // where it stands
        std::array<std::byte, TR_HEADER_LENGTH> head; // its header
        uint32_t oldestOffset;                        // the header's uOldestRecordOffset at that time
        cu_timeinfo_t timeInfo;                       // in force behind it
        uint32_t pid;                                 // in force behind it
        bool bQuiet;                                  // the file held nothing behind it
    };

    explicit trace_file_t(int fd);
    bool is_unchanged() const;

    int fd = -1;
    std::optional<follow_t> follow;
};

// Reads a file that is in memory already and that nobody changes. The records point into `bytes`, which has to outlive
// them; `pImage` of the batch stays null.
batch_t read_image(std::span<const std::byte> bytes);

} // namespace trread

#endif
