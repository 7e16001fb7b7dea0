// Any bytes as a configuration file and as the text of KZ_TR_SPOOL: sound entries, and at most one fault, which is the last
// thing that is found and lies within what was read.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz/specs.h"
#include "trace/spool/config.h"
#include "trace/spool/spool.h"

struct reading_t {
    trace_spool_spec_t *pFirst = nullptr, *pLast = nullptr;
    spool_findings_t findings = {};

    ~reading_t() {
        free_spool_findings(&findings);
        free_spool_spec_linked_list(pFirst);
    }
    spool_list_t list() {
        return {&pFirst, &pLast};
    }
    void check(bool bFault, bool bFile, size_t size) const {
        const trace_spool_spec_t *pPrev = nullptr;
        for (const auto *pSpec = pFirst; pSpec != nullptr; pPrev = pSpec, pSpec = pSpec->pNext) {
            require(pSpec->pPrev == pPrev && *pSpec->pattern != '\0' && *pSpec->dest != '\0');
            require(pSpec->sync_interval > 0 && strnlen(pSpec->dest, TR_NAME_SIZE) < TR_NAME_SIZE);
            require(!bFile || (pSpec->pages >= 3 && pSpec->pg_size >= 4096));
        }
        require(pLast == pPrev);
        for (const auto *pFinding = findings.pFirst; pFinding != nullptr; pFinding = pFinding->pNext) {
            require(pFinding->place.offset <= (bFile ? strlen(pFinding->text) : size));
            require(is_spool_fault(pFinding->kind) == (bFault && pFinding == findings.pLast));
        }
        require(!bFault || findings.pLast != nullptr);
        (void)find_spool_spec("/var/kz/c1/log.3.sp", pFirst);
    }
};

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // No other thread is there yet. NOLINTBEGIN(concurrency-mt-unsafe)
    (void)setenv("KZ_CU_CLUSTER_NAME", "c1", 1);
    (void)setenv("KZ_CU_CLUSTER_ID", "0a1b2c", 1);
    // NOLINTEND(concurrency-mt-unsafe)
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pData, size_t size) {
    static const int fd = memfd_create("config", 0);
    static const std::string path = "/proc/self/fd/" + std::to_string(fd);
    require(ftruncate(fd, 0) == 0 && pwrite(fd, pData, size, 0) == static_cast<ssize_t>(size));
    reading_t file;
    const int32_t rc = read_spool_file(path.c_str(), file.list(), &file.findings);
    require(rc == 0 || rc == TR_RC_SPOOL_SYNTAX);
    file.check(rc != 0, true, size);
    reading_t text;
    const bool bFault = read_spool_text(text_of(pData, size).c_str(), text.list(), &text.findings) == TR_RC_SPOOL_TEXT;
    text.check(bFault, false, size);
    return 0;
}
