// Finds the files that hold the history of a trace file.
//
//   /a/b                                   the trace file itself, or what was kept of it from before it had pages
//   /a/b.1.sp  /a/b.2.sp ...               its pages, a ring that is written page after page
//   b.2.sp.2024_03_01_12_00_00.42          a copy of a page, in another directory; of any file with another name before
//                                          the time
//
// Only names are looked at here. What a file holds has to agree with its name nowhere: see reader/collection.h.
#ifndef KZ_READER_FIND_H
#define KZ_READER_FIND_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace trread {

// A file and what its name tells.
struct place_t {
    std::string path;
    std::string traceFile; // name of the trace file that it belongs to, without directories
    uint32_t page = 0;     // number of the page, from 1; 0: no page and no copy of one
    std::string copyTime;  // local time of the copy, as it stands in the name; empty: no copy
    std::string reason;    // why there is nothing to read; empty: there is a file

    bool is_copy() const {
        return !copyTime.empty();
    }
};

// What the name of a file tells; the file need not exist.
place_t place_of(const std::string &path);

// The files that stand behind arguments:
// - a directory: all pages and copies in it and below it, and the trace files that its pages belong to. Other files are
//   passed over, among them damaged pages that their writer put aside, and symbolic links to directories;
// - the name of a page or copy: that file;
// - any other name: that file, and the pages beside it that are named after it. The file may be missing when there are
//   pages.
//
// What cannot be read, or leads to nothing, is among the results with its reason. Each file comes once, whatever path
// leads to it, ordered by trace file, pages before copies, and by number and time.
std::vector<place_t> find_files(const std::vector<std::string> &paths);

// Whether an argument stands for itself: a file that is neither a page nor a copy and has no pages.
bool is_lone_file(const std::string &path);

} // namespace trread

#endif
