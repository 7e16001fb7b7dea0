// Any text as a file size specification: each group is passed as a whole, up to a fault at its end.
#include <algorithm>

#include "fuzz/specs.h"
#include "trace/control/settings.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    const std::string text = text_of(pData, size);
    static file_size_spec_t spec;
    spec_range_t range = whole_text(text.c_str());
    while (range.pos < range.end) {
        const size_t end = std::min(text.find(';', range.pos), text.size());
        spec_fault_t fault = {};
        const int32_t rc = parse_file_size(&range, &spec, &fault);
        require(rc == fault.code && range.pos == std::min(end + 1, text.size()) && range.end == text.size());
        require(strnlen(spec.fileName, TR_NAME_SIZE) < TR_NAME_SIZE && strchr(spec.fileName, ';') == nullptr);
        if (rc != 0) {
            require(rc == TR_RC_SPEC_SEPARATOR && fault.offset == end);
            return 0;
        }
    }
    return 0;
}
