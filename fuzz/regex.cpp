// The expressions of the C library are not what is tested, and some take all the memory there is: those with counts, and
// those with many a "+". The linker leads the library's calls here.
#include <regex.h>

#include <algorithm>
#include <string_view>

extern "C" {
int __real_regcomp(regex_t *pExpression, const char *pPattern, int flags);
int __wrap_regcomp(regex_t *pExpression, const char *pPattern, int flags) {
    const std::string_view pattern(pPattern);
    if (std::count(pattern.begin(), pattern.end(), '+') > 4 || pattern.find_first_of("{\\") != std::string_view::npos)
        return REG_BADBR;
    return __real_regcomp(pExpression, pPattern, flags);
}
}
