// Reads what is left of the history of trace files, wherever it lies, and hands it out as one stream: trace files, their
// pages, copies of pages, and whole directories of copies.
//
// A page is written from its front to its end and then, some time, taken back and written anew. What it held between two
// such moments is a life of the page. A life only grows, so a page and its copies that show records of one life agree on
// these, and each may have records that the others lack:
//
//   copy      2 4 6 8          of a life that is over
//   copy      2 4 6            of another life, made before a restart of the program went on with it
//   page      2 4 6 8 10       the page now: the same life
//
// - Two records of the same page are one when they stand at the same offset with the same sequence number and have the
//   same bytes, which include thread and time stamp; one that was not finished when it was read counts as whatever it
//   has become. Two files of the same page name show one life when they have a finished record in common.
// - Within a life the order is the order of writing, whatever the time stamps. The lives of the pages of one trace file
//   follow each other, ordered by their first times: that keeps the order of writing, and with it the order in each
//   thread. Lives that overlap by more than clocks can err were written by different processes (files of one name in
//   different places). These, and different trace files, are merged by time.
// - A thread's records in two trace files are in order as far as their times are.
//
// No name is believed beyond that: a file with a misleading name costs time, and its records come in all the same.
// Nothing is trusted that stands in a file; what is wrong with it is told as a fault of its source.
//
// Copies are read twice, once to see what they are and once when the stream arrives at them, and are not kept in memory:
// a directory of copies may be larger than that. All others are read once, in the order of writing, and before the
// directories are listed, so that no page can be taken back unseen between the two.
#ifndef KZ_READER_COLLECTION_H
#define KZ_READER_COLLECTION_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "reader/find.h"
#include "reader/reader.h"

namespace trread {

// Times of the first and the last record, in nanoseconds since 1970 (UTC).
struct span_t {
    int64_t first_ns;
    int64_t last_ns;
};

// A file of a collection as it was when it was read.
struct source_t {
    place_t place;
    bool bOpened = false; // otherwise there is one fault, which tells why
    std::optional<trace_file_header_t> header;
    uint64_t fileSize = 0;      // bytes
    size_t numRecords = 0;      // those handed out by others as well
    uint32_t numUnknown = 0;    // records of unknown kinds, left out
    std::optional<span_t> span; // nothing without finished records
    std::vector<fault_t> faults;
};

// The records of several files, each once. One thread at a time.
class collection_t {
  public:
    // Finds (see find_files) and reads the files behind paths: trace files, names of page sets, pages, copies,
    // directories. What cannot be read is a source with a fault.
    explicit collection_t(const std::vector<std::string> &paths);

    // In the order of find_files, copies behind all others. Faults may be added while the stream is read.
    const std::vector<source_t> &sources() const {
        return files;
    }

    // The next record of the stream, valid until the next call; null behind the last one. The time of a record of kind
    // TR_KIND_RESERVED, which is not known, is that of the record before it in its file.
    const record_t *next();

  private:
    // Files of one page name whose times overlap: they may show the same life.
    struct bundle_t {
        span_t span;
        std::vector<size_t> members; // indices into files, by their first times
    };
    // Bundles of one trace file that follow each other.
    struct track_t {
        std::vector<bundle_t> bundles;
        size_t numOpened = 0;
        std::vector<record_t> records;                      // of the bundle opened last
        std::vector<std::shared_ptr<const image_t>> images; // that the records point into
        size_t pos = 0;                                     // of the next record

        std::optional<int64_t> next_time() const;
    };

    void read_pages(const std::vector<std::string> &paths);
    void read_copies(const std::vector<std::string> &paths);
    batch_t read_source(source_t *pSource);
    batch_t take_batch(size_t index);
    std::vector<bundle_t> make_bundles() const;
    void lay_tracks();
    void open_bundle(track_t *pTrack);

    std::vector<source_t> files;
    std::vector<batch_t> kept; // of the files that are no copies, until the stream arrives at them
    std::vector<track_t> tracks;
};

} // namespace trread

#endif
