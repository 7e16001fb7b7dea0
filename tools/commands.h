// The subcommands of kztrace. Each adds itself to the command line, and stores the program's exit code when it ran.
#ifndef KZ_TOOLS_COMMANDS_H
#define KZ_TOOLS_COMMANDS_H

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "reader/collection.h"

namespace kztrace {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAULT = 1; // a file could not be read, or not all of it; a specification is faulty
constexpr int EXIT_USAGE = 2;

// What the commands that read trace files say of their arguments.
constexpr const char *FILES_HELP = "Trace files, names of page sets, pages, copies of pages, or directories of these;\n"
                                   "also while they are being written";
constexpr const char *MERGE_HELP =
    "Put the records of all arguments together, ordered by time. That is so anyway when\n"
    "one of them is a page set, a page, a copy or a directory";

void add_config(CLI::App *pApp, int *pExitCode);
void add_dump(CLI::App *pApp, int *pExitCode);
void add_info(CLI::App *pApp, int *pExitCode);
void add_levels(CLI::App *pApp, int *pExitCode);
void add_map(CLI::App *pApp, int *pExitCode);
void add_sizes(CLI::App *pApp, int *pExitCode);

// Reports on standard error, behind all that went to standard output so far: "kztrace: FILE: reason".
void report(const std::string &fileName, const std::string &reason);

// Reads the files behind arguments, hands them to `show`, and reports what is wrong with them.
//
// Arguments of which one is more than a lone file (a page set, a page, a copy, a directory) are one collection, so that a
// page set and the directory of its copies become one stream. So are lone files with `bMerge`; without, each is shown
// by itself, under a heading when there are several. Files that cannot be opened are reported only. Returns the exit
// code.
int show_files(const std::vector<std::string> &paths, bool bMerge,
               const std::function<void(trread::collection_t *)> &show);

} // namespace kztrace

#endif
