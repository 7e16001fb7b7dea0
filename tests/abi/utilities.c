/* The part of the program that uses the common utilities, and their header alone. */
#include <kz_cu.h>

#include <stdio.h>
#include <string.h>

int check_utilities(void);

int check_utilities(void) {
    int numFaults = 0;
    cu_error_t *pError = NULL;
    if (cu_set_error_1(7, "ffdc", "catalogue.cat", 1, 2, "the text %s at %d\n", "abc", 5) != 7)
        numFaults++;
    if (cu_get_error_1(&pError) != 0)
        return 1;
    if (pError->cu_error_id != 7 || pError->cu_arg_cnt != 2 || pError->cu_args[1].cu_arg_value.cu_arg_int != 5 ||
        strcmp(pError->cu_args[0].cu_arg_value.cu_arg_char_str, "abc") != 0)
        numFaults++;
    cu_rel_error_1(pError);
    if (cu_set_no_error_1() != 0)
        numFaults++;

    cu_timeinfo_t timeinfo;
    cu_get_procspeed_1(&timeinfo);
    if (timeinfo.timeinfo1 == 0 || cu_get_ctr_1() == 0)
        numFaults++;
    if (numFaults != 0)
        printf("common utilities: %d faults\n", numFaults);
    return numFaults;
}
