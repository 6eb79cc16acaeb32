#pragma once

/// @file
/// What must be true inside, or somebody here has made a mistake: a lock that a caller holds, a state that has
/// been reached, an index in range, a list that is whole, a count that was kept. Never for what comes from
/// outside, which is answered with a result.

/// Prints the expression and its place on the standard error and ends the program, as abort does. Any thread.
[[noreturn]] void PlatCheckFailed(char const *pszExpression, char const *pszFile, int nLine);

/// Ends the program in every build when the expression is false: going on would destroy what belongs to others.
#define PLAT_REQUIRE(expression)                                                                   \
    ((expression) ? static_cast<void>(0) : PlatCheckFailed(#expression, __FILE__, __LINE__))

/// The same where QOMA_CHECKS is defined: debug, sanitizers, the simulation. Elsewhere the expression is compiled
/// and not evaluated.
#ifdef QOMA_CHECKS
#define PLAT_CHECK(expression) PLAT_REQUIRE(expression)
#else
#define PLAT_CHECK(expression) static_cast<void>(sizeof((expression) ? 1 : 0))
#endif
