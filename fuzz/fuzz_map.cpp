// Any text as a file map: entries of all groups, or a fault within the text, with exactly the entries of the groups
// before the faulty one added.
#include "fuzz/specs.h"
#include "trace/control/filemap.h"

using maps_t = specs_t<trace_map_spec_t>;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    const std::string text = text_of(pData, size);
    maps_t maps;
    spec_fault_t fault;
    require(parse_file_maps("first,a:b", maps.list(), &fault) == 0);
    const int32_t rc = parse_file_maps(text.c_str(), maps.list(), &fault);
    require(rc == fault.code);
    const size_t numSpecs = maps.count();
    for (const auto *pSpec = maps.pFirst; pSpec != nullptr; pSpec = pSpec->pNext)
        require(strnlen(pSpec->fileName, TR_NAME_SIZE) < TR_NAME_SIZE && strchr(pSpec->fileName, ';') == nullptr &&
                strchr(pSpec->pCategory, ' ') == nullptr);
    if (rc == 0)
        return 0;
    const size_t offset = size_t{fault.origin} + fault.offset;
    require(is_spec_code(rc) && offset <= text.size());
    maps_t before;
    require(parse_file_maps(good_part(text, offset, ';').c_str(), before.list(), &fault) == 0);
    require(before.count() + 1 == numSpecs);
    return 0;
}
