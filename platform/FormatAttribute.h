// Lets the compiler check the arguments of our printf-style functions.
#pragma once

#if defined(__GNUC__) && !defined(_WIN32)
#define FERROLT_PRINTF(formatIndex) __attribute__((format(printf, formatIndex, formatIndex + 1)))
#else
#define FERROLT_PRINTF(formatIndex)
#endif
