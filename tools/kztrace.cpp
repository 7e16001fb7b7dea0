// kztrace: the command-line tool for trace files. This file holds the command line and what the subcommands share.
#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "reader/collection.h"
#include "tools/commands.h"
#include "tools/format.h"

namespace kztrace {

void report(const std::string &fileName, const std::string &reason) {
    (void)fflush(stdout); // failures are found at the end
    fmt::print(stderr, "kztrace: {}: {}\n", escape(fileName), reason);
}

// Shows a collection unless nothing of it could be opened. Returns whether all is well with it.
static bool show_collection(trread::collection_t *pFiles, const std::function<void(trread::collection_t *)> &show) {
    if (std::ranges::any_of(pFiles->sources(), &trread::source_t::bOpened))
        show(pFiles);
    bool bWhole = true;
    for (const auto &source : pFiles->sources())
        for (const auto &fault : source.faults) {
            report(source.place.path, fault.text);
            bWhole = false;
        }
    return bWhole;
}

int show_files(const std::vector<std::string> &paths, bool bMerge,
               const std::function<void(trread::collection_t *)> &show) {
    bool bWhole = true;
    if (bMerge || !std::ranges::all_of(paths, trread::is_lone_file)) {
        trread::collection_t files(paths);
        return show_collection(&files, show) ? EXIT_OK : EXIT_FAULT;
    }
    for (size_t i = 0; i < paths.size(); i++) {
        trread::collection_t file({paths[i]});
        const auto show_headed = [&](trread::collection_t *pFile) {
            if (paths.size() > 1)
                fmt::print("{}==> {} <==\n", i == 0 ? "" : "\n", escape(paths[i]));
            show(pFile);
        };
        bWhole = show_collection(&file, show_headed) && bWhole;
    }
    return bWhole ? EXIT_OK : EXIT_FAULT;
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
