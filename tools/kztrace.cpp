// kztrace: the command-line tool for trace files. This file holds the command line and what the subcommands share.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "reader/reader.h"
#include "tools/commands.h"
#include "tools/format.h"

namespace kztrace {

void report(const std::string &fileName, const std::string &reason) {
    (void)fflush(stdout); // failures are found at the end
    fmt::print(stderr, "kztrace: {}: {}\n", escape(fileName), reason);
}

std::optional<trread::batch_t> read_file(const std::string &fileName) {
    std::string reason;
    const auto file = trread::trace_file_t::open(fileName, &reason);
    if (!file) {
        report(fileName, reason);
        return std::nullopt;
    }
    return file->read_all();
}

int report_faults(const std::string &fileName, const trread::batch_t &batch) {
    for (const auto &fault : batch.faults)
        report(fileName, fault.text);
    return batch.faults.empty() ? EXIT_OK : EXIT_FAULT;
}

void print_heading(const std::string &fileName, size_t index, size_t numFiles) {
    if (numFiles > 1)
        fmt::print("{}==> {} <==\n", index == 0 ? "" : "\n", escape(fileName));
}

static int run(int argc, char **argv) {
    int exitCode = EXIT_OK;
    CLI::App app("Shows what trace files hold, and checks specifications of what goes into them.", "kztrace");
    app.set_version_flag("--version", "kztrace " KZ_TRACE_VERSION);
    app.require_subcommand(1);
    app.footer("'kztrace COMMAND --help' tells the options of a command.\n"
               "Exit code: 0 all is well, 1 a file is damaged or cannot be read or a specification is faulty,\n"
               "2 wrong usage.");
    add_dump(&app, &exitCode);
    add_info(&app, &exitCode);
    add_levels(&app, &exitCode);
    add_map(&app, &exitCode);
    add_sizes(&app, &exitCode);
    add_config(&app, &exitCode);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (app.exit(error) != 0)
            return EXIT_USAGE;
    }
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        report("standard output", "cannot be written");
        return EXIT_FAULT;
    }
    return exitCode;
}

} // namespace kztrace

int main(int argc, char **argv) {
    // Whoever reads our output may stop before its end; the program then ends there, without a word.
    (void)signal(SIGPIPE, SIG_DFL);
    try {
        return kztrace::run(argc, argv);
    } catch (const std::exception &error) {
        (void)fprintf(stderr, "kztrace: %s\n", error.what());
        return kztrace::EXIT_FAULT;
    }
}
