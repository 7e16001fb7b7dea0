// What the commands share that check a specification: how entries are listed, and how a place in a text is pointed at.
#ifndef KZ_TOOLS_SPECS_H
#define KZ_TOOLS_SPECS_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kztrace {

using row_t = std::vector<std::string>; // the cells of a line

enum class align_t { left, right };

// Writes what was understood, if anything; `rows` begins with the heading. The first column stands to the left, the others
// as said.
void print_entries(const std::vector<row_t> &rows, align_t align = align_t::left);

// A text as a terminal may have it. A backslash stands for itself: it is common in patterns, and whoever reads it has
// typed it.
std::string visible(std::string_view text);

// Says something about a place in a text on standard error, and shows the place.
void report_at(const std::string &text, size_t offset, std::string_view what);

} // namespace kztrace

#endif
