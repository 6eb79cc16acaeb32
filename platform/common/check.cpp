#include "platform/check.h"

#include <cstdio>
#include <cstdlib>

void PlatCheckFailed(char const *pszExpression, char const *pszFile, int nLine)
{
    std::fprintf(stderr, "%s:%d: this must hold and does not: %s\n", pszFile, nLine, pszExpression);
    std::fflush(stderr);
    std::abort();
}
