// The C library's regular expressions are not what is tested, and some of them take all the memory there is. So the
// targets bring stand-ins: a pattern counts as valid unless it holds a "!", and takes memory that has to be released.
#include <regex.h>

#include <cstdlib>
#include <cstring>

// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name): the names in the header are reserved ones
extern "C" {
int regcomp(regex_t *pExpression, const char *pPattern, int) {
    if (strchr(pPattern, '!') != nullptr)
        return REG_BADPAT;
    pExpression->buffer = static_cast<decltype(pExpression->buffer)>(malloc(1));
    return 0;
}

void regfree(regex_t *pExpression) {
    free(pExpression->buffer);
}
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
