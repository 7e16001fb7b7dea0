// The subcommands of kztrace. Each adds itself to the command line, and stores the program's exit code when it ran.
#ifndef KZ_TOOLS_COMMANDS_H
#define KZ_TOOLS_COMMANDS_H

#include <string>

#include <CLI/CLI.hpp>

#include "reader/reader.h"

namespace kztrace {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAULT = 1; // a file could not be read, or not all of it; a specification is faulty
constexpr int EXIT_USAGE = 2;

void add_config(CLI::App *pApp, int *pExitCode);
void add_dump(CLI::App *pApp, int *pExitCode);
void add_info(CLI::App *pApp, int *pExitCode);
void add_levels(CLI::App *pApp, int *pExitCode);
void add_map(CLI::App *pApp, int *pExitCode);
void add_sizes(CLI::App *pApp, int *pExitCode);

// Reports on standard error, behind all that went to standard output so far: "kztrace: FILE: reason".
void report(const std::string &fileName, const std::string &reason);

// Opens and reads a file, and reports why when it cannot be opened. Returns nothing then.
std::optional<trread::batch_t> read_file(const std::string &fileName);

// Reports what is wrong with a file that has been read. Returns the exit code.
int report_faults(const std::string &fileName, const trread::batch_t &batch);

// Writes the line that stands above each file's part of the output, when there are several.
void print_heading(const std::string &fileName, size_t index, size_t numFiles);

} // namespace kztrace

#endif
