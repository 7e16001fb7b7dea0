// The identity of cluster and node. A setting comes from the environment or else from a small file; nothing is kept,
// so that a change is seen by the next call. The functions wait for files, but are no cancellation points.
#include "cu/kz_cu.h"

#include <errno.h>
#include <grp.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cu/files.h"

static constexpr char CONFIG_PATH[] = "/var/kz/cfg/node.conf";
static constexpr char MACHINE_ID_PATH[] = "/etc/machine-id";
static constexpr size_t NODE_ID_DIGITS = 16;
static constexpr size_t LINE_SIZE = 512;                      // of the file; what a line has beyond that is dropped
static constexpr size_t MAX_GROUP_SIZE = size_t{1024} * 1024; // of what the system keeps about one group

// A setting, and where it may be found. An empty text is no setting.
struct setting_t {
    const char *pVariable; // name in the environment
    const char *pName;     // name in the file
    char *pValue;          // receives the text, cut to size; left empty when there is none
    size_t size;
};

static bool is_blank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// Takes the blanks off both ends of a text, in place.
static char *trim(char *pText) {
    while (is_blank(*pText))
        pText++;
    size_t length = strlen(pText);
    while (length > 0 && is_blank(pText[length - 1]))
        length--;
    pText[length] = '\0';
    return pText;
}

static void store_value(const setting_t *pSetting, const char *pValue) {
    (void)snprintf(pSetting->pValue, pSetting->size, "%s", pValue); // may be cut
}

// Reads a line without its end; what is too long is dropped. Returns false at the end of the file.
static bool read_line(FILE *pFile, char (&line)[LINE_SIZE]) {
    size_t length = 0;
    int c;
    while ((c = getc(pFile)) != '\n' && c != EOF)
        if (length < LINE_SIZE - 1)
            line[length++] = static_cast<char>(c);
    line[length] = '\0';
    return c != EOF || length > 0;
}

// line := blanks "#" text | blanks name blanks "=" blanks value blanks
// The first line for a name counts. Settings that have a value already are left alone.
static void read_config_line(char *pLine, setting_t *pSettings, size_t numSettings) {
    char *pValue = strchr(pLine, '=');
    if (pValue == nullptr)
        return;
    *pValue++ = '\0';
    const char *pName = trim(pLine); // the name of a comment begins with "#", and so it is none of ours
    for (size_t i = 0; i < numSettings; i++)
        if (pSettings[i].pValue[0] == '\0' && strcmp(pSettings[i].pName, pName) == 0)
            store_value(&pSettings[i], trim(pValue));
}

static void read_config(setting_t *pSettings, size_t numSettings) {
    const int fd = open_regular(CONFIG_PATH);
    if (fd < 0)
        return;
    FILE *pFile = fdopen(fd, "r");
    if (pFile == nullptr) {
        (void)close(fd); // nothing was written
        return;
    }
    char line[LINE_SIZE] = "";
    while (read_line(pFile, line))
        read_config_line(line, pSettings, numSettings);
    (void)fclose(pFile); // nothing was written
}

// Finds settings, each by itself, the environment first. The file is read only when one is still missing then.
static void find_settings(setting_t *pSettings, size_t numSettings) {
    bool isMissing = false;
    for (size_t i = 0; i < numSettings; i++) {
        const char *pValue = secure_getenv(pSettings[i].pVariable);
        store_value(&pSettings[i], pValue == nullptr ? "" : pValue);
        isMissing |= pSettings[i].pValue[0] == '\0';
    }
    if (!isMissing)
        return;
    int cancelState;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    read_config(pSettings, numSettings);
    (void)pthread_setcancelstate(cancelState, nullptr);
}

int32_t cu_get_cluster_info_1(cu_cluster_info_t *info) {
    if (info == nullptr)
        return EINVAL;
    cu_cluster_info_t found = {};
    char number[32] = "";
    setting_t settings[] = {{"KZ_CU_CLUSTER_NAME", "cluster_name", found.cu_cluster_name, sizeof found.cu_cluster_name},
                            {"KZ_CU_CLUSTER_ID", "cluster_id", found.cu_cluster_ID, sizeof found.cu_cluster_ID},
                            {"KZ_CU_NODE_NUMBER", "node_number", number, sizeof number}};
    find_settings(settings, sizeof settings / sizeof settings[0]);
    if (found.cu_cluster_name[0] == '\0')
        return ENOENT;
    char *pEnd = number;
    errno = 0;
    const long long value = strtoll(number, &pEnd, 0);
    if (*pEnd == '\0' && errno == 0 && value >= INT32_MIN && value <= INT32_MAX)
        found.cu_node_number = static_cast<int32_t>(value);
    *info = found;
    return 0;
}

// Reads the node's identifier from the settings. Returns false when it is not there, or not a number.
static bool find_node_id(uint64_t *pNodeId) {
    char text[32] = "";
    setting_t setting = {"KZ_CU_NODE_ID", "node_id", text, sizeof text};
    find_settings(&setting, 1);
    char *pEnd = text;
    errno = 0;
    *pNodeId = strtoull(text, &pEnd, 0);
    return pEnd != text && *pEnd == '\0' && errno == 0;
}

int32_t cu_get_node_id_1(uint64_t *node_id) {
    if (node_id == nullptr)
        return EINVAL;
    uint64_t found;
    if (!find_node_id(&found)) {
        char digits[NODE_ID_DIGITS + 1];
        if (read_file(MACHINE_ID_PATH, digits, sizeof digits) < 0 ||
            strspn(digits, "0123456789abcdefABCDEF") < NODE_ID_DIGITS)
            return ENOENT;
        found = strtoull(digits, nullptr, 16);
    }
    *node_id = found;
    return 0;
}

// Looks a group up by its name, with memory that grows until what the system keeps about it fits.
static int32_t find_group(const char *pName, gid_t *pGroup) {
    char *pBuffer = nullptr;
    struct group entry;
    struct group *pFound = nullptr;
    int err = ERANGE;
    for (size_t size = 1024; err == ERANGE && size <= MAX_GROUP_SIZE; size *= 2) {
        free(pBuffer);
        pBuffer = static_cast<char *>(malloc(size));
        if (pBuffer == nullptr)
            return ENOMEM;
        do
            err = getgrnam_r(pName, &entry, pBuffer, size, &pFound);
        while (err == EINTR);
    }
    if (pFound != nullptr)
        *pGroup = entry.gr_gid;
    free(pBuffer);
    return pFound == nullptr ? ENOENT : 0;
}

int32_t cu_getadmin_group_id_1(gid_t *group) {
    if (group == nullptr)
        return EINVAL;
    char name[LINE_SIZE] = "";
    setting_t setting = {"KZ_CU_ADMIN_GROUP", "admin_group", name, sizeof name};
    find_settings(&setting, 1);
    if (name[0] == '\0')
        return ENOENT;
    int cancelState;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState); // the look-up opens files and connections
    const int32_t rc = find_group(name, group);
    (void)pthread_setcancelstate(cancelState, nullptr);
    return rc;
}
