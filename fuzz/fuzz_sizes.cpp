// Any text as a file size specification: each group is passed as a whole, up to a fault at its end, and means the same
// wherever it stands.
#include <algorithm>

#include "fuzz/specs.h"
#include "trace/control/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    const std::string text = text_of(pData, size);
    static file_size_spec_t spec, alone;
    spec_range_t range = whole_text(text.c_str());
    while (range.pos < range.end) {
        const uint32_t start = range.pos;
        const size_t end = std::min(text.find(';', start), text.size());
        spec_fault_t fault = {}, faultAlone = {};
        const int32_t rc = parse_file_size(&range, &spec, &fault);
        require(rc == fault.code && range.pos == std::min(end + 1, text.size()) && range.end == text.size());
        require(strnlen(spec.fileName, TR_NAME_SIZE) < TR_NAME_SIZE && strchr(spec.fileName, ';') == nullptr);
        if (rc != 0) {
            require(rc == TR_RC_SPEC_SEPARATOR && fault.offset == end);
            return 0;
        }
        const std::string group = text.substr(start, end - start);
        spec_range_t groupRange = whole_text(group.c_str());
        require(parse_file_size(&groupRange, &alone, &faultAlone) == 0);
        require(alone.uSize == spec.uSize && strcmp(alone.fileName, spec.fileName) == 0);
    }
    return 0;
}
