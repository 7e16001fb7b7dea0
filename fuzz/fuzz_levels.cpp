// Any text as a trace level specification: one entry for each stretch between commas, or a fault within the text, with
// all before the faulty entry in order and the list as it was.
#include <algorithm>

#include "fuzz/specs.h"
#include "trace/control/levels.h"

using levels_t = specs_t<trace_level_spec_t>;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    const std::string text = text_of(pData, size);
    levels_t levels;
    spec_fault_t fault;
    require(parse_levels("first:entry", levels.list(), &fault) == 0);
    const trace_level_spec_t *const pOld = levels.pLast;
    const int32_t rc = parse_levels(text.c_str(), levels.list(), &fault);
    require(rc == fault.code && fault.origin == 0);
    const size_t numSpecs = levels.count();
    if (rc == 0) {
        const auto numCommas = std::count(text.begin(), text.end(), ',');
        require(numSpecs == 1 + static_cast<size_t>(numCommas) + (text.empty() || text.ends_with(',') ? 0 : 1));
        for (const auto *pSpec = levels.pFirst; pSpec != nullptr; pSpec = pSpec->pNext)
            require(pSpec->pCompId[0] != ' ' && strchr(pSpec->pCategory, '=') == nullptr &&
                    !std::string(pSpec->pCategory).ends_with(' '));
        return 0;
    }
    require(is_spec_code(rc) && fault.offset <= text.size() && levels.pLast == pOld);
    levels_t before;
    require(parse_levels(good_part(text, fault.offset, ',').c_str(), before.list(), &fault) == 0);
    return 0;
}
