#include "reader/find.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <set>
#include <system_error>
#include <tuple>
#include <utility>

namespace trread {

namespace fs = std::filesystem;
using std::string_view;

constexpr string_view PAGE_END = ".sp";
constexpr string_view TIME_PATTERN = ".dddd_dd_dd_dd_dd_dd"; // d: a digit
constexpr size_t MIN_MICROSECONDS = 2;                       // characters: a single digit has a blank before it
constexpr size_t MAX_MICROSECONDS = 6;
constexpr size_t MAX_PAGE_DIGITS = 9;

static bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

static bool matches(string_view text, string_view pattern) {
    return std::ranges::equal(text, pattern, [](char c, char p) { return p == 'd' ? is_digit(c) : c == p; });
}

// Where the time of a copy begins in a name, with its dot; npos in other names.
static size_t find_copy_time(string_view name) {
    const size_t dot = name.rfind('.');
    if (dot == string_view::npos || dot <= TIME_PATTERN.size())
        return string_view::npos;
    string_view microseconds = name.substr(dot + 1);
    const size_t width = microseconds.size();
    if (width == MIN_MICROSECONDS && microseconds[0] == ' ')
        microseconds.remove_prefix(1);
    const size_t begin = dot - TIME_PATTERN.size();
    const bool bTime = width >= MIN_MICROSECONDS && width <= MAX_MICROSECONDS &&
                       std::ranges::all_of(microseconds, is_digit) &&
                       matches(name.substr(begin, TIME_PATTERN.size()), TIME_PATTERN);
    return bTime ? begin : string_view::npos;
}

// The number of a page, and the name without it; 0 and the whole name when it is no page.
static std::pair<string_view, uint32_t> split_page(string_view name) {
    if (!name.ends_with(PAGE_END))
        return {name, 0};
    const string_view rest = name.substr(0, name.size() - PAGE_END.size());
    const size_t dot = rest.rfind('.');
    if (dot == string_view::npos || dot == 0)
        return {name, 0};
    const string_view digits = rest.substr(dot + 1);
    if (digits.empty() || digits.size() > MAX_PAGE_DIGITS || digits[0] == '0' || !std::ranges::all_of(digits, is_digit))
        return {name, 0};
    uint32_t page = 0;
    (void)std::from_chars(digits.data(), digits.data() + digits.size(), page); // nine digits always fit
    return {rest.substr(0, dot), page};
}

place_t place_of(const std::string &path) {
    const string_view name = string_view(path).substr(path.rfind('/') + 1); // npos + 1: all of it
    const size_t copyTime = find_copy_time(name);
    const auto [traceFile, page] = split_page(name.substr(0, copyTime));
    place_t place{path, std::string(traceFile), page, {}, {}};
    if (copyTime != string_view::npos)
        place.copyTime = name.substr(copyTime + 1);
    return place;
}

static place_t nothing_at(const std::string &path, std::string reason) {
    place_t place = place_of(path);
    place.reason = std::move(reason);
    return place;
}

// The trace file that a page belongs to, if there is a file of its name beside the page.
static void add_kept_file(const place_t &page, std::vector<place_t> *pPlaces) {
    std::error_code ignored; // what cannot be looked at is not there
    const fs::path kept = fs::path(page.path).parent_path() / page.traceFile;
    if (fs::is_regular_file(kept, ignored))
        pPlaces->push_back(place_of(kept.string()));
}

// Goes down into directories, but not through symbolic links: the names of copies may lie several levels below the
// directory that was configured.
static void add_directory(const std::string &path, std::vector<place_t> *pPlaces) {
    const size_t numBefore = pPlaces->size();
    std::vector<std::string> directories = {path};
    while (!directories.empty()) {
        const std::string directory = std::move(directories.back());
        directories.pop_back();
        std::error_code err, ignored; // what is not known to be a directory or a file is passed over
        fs::directory_iterator entry(directory, err);
        for (; !err && entry != fs::directory_iterator(); entry.increment(err)) {
            place_t place = place_of(entry->path().string());
            if (fs::is_directory(entry->symlink_status(ignored)))
                directories.push_back(place.path);
            if ((place.page == 0 && !place.is_copy()) || !entry->is_regular_file(ignored))
                continue;
            if (!place.is_copy())
                add_kept_file(place, pPlaces);
            pPlaces->push_back(std::move(place));
        }
        if (err)
            pPlaces->push_back(nothing_at(directory, "cannot be listed: " + err.message()));
    }
    if (pPlaces->size() == numBefore)
        pPlaces->push_back(nothing_at(path, "is a directory without pages and copies"));
}

// Searches the directory instead of counting up from 1: a page may be missing, and how many there are nobody tells.
static void add_pages_of(const place_t &traceFile, std::vector<place_t> *pPlaces) {
    fs::path directory = fs::path(traceFile.path).parent_path();
    const bool bNamed = !directory.empty();
    std::error_code err; // a directory that cannot be listed may have a file that can be read
    fs::directory_iterator entry(bNamed ? directory : fs::path("."), err);
    for (; !err && entry != fs::directory_iterator(); entry.increment(err)) {
        const fs::path name = entry->path().filename();
        place_t place = place_of((bNamed ? directory / name : name).string());
        if (place.page != 0 && !place.is_copy() && place.traceFile == traceFile.traceFile)
            pPlaces->push_back(std::move(place));
    }
}

static void add_argument(const std::string &path, std::vector<place_t> *pPlaces) {
    std::error_code ignored; // opening the file will tell
    if (fs::is_directory(path, ignored)) {
        add_directory(path, pPlaces);
        return;
    }
    place_t place = place_of(path);
    const size_t numBefore = pPlaces->size();
    if (place.page == 0 && !place.is_copy())
        add_pages_of(place, pPlaces);
    if (pPlaces->size() == numBefore || fs::exists(path, ignored))
        pPlaces->push_back(std::move(place));
}

std::vector<place_t> find_files(const std::vector<std::string> &paths) {
    std::vector<place_t> places;
    for (const std::string &path : paths)
        add_argument(path, &places);
    std::set<std::string> seen;
    std::erase_if(places, [&seen](const place_t &place) {
        std::error_code err;
        const fs::path canonical = fs::weakly_canonical(place.path, err);
        return !seen.insert(err ? place.path : canonical.string()).second;
    });
    std::ranges::sort(places, {}, [](const place_t &place) {
        return std::tie(place.traceFile, place.copyTime, place.page, place.path); // no time sorts before any time
    });
    return places;
}

bool is_lone_file(const std::string &path) {
    std::vector<place_t> places;
    add_argument(path, &places);
    return places.size() == 1 && places[0].page == 0 && !places[0].is_copy() && places[0].reason.empty();
}

} // namespace trread
