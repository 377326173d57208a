#pragma once

// Lets the compiler check arguments against a format of the Windows C runtime (%Ix, %llu); a
// compiler that does not know that dialect compiles the same code without the check.
#if defined(__GNUC__) && !defined(__clang__)
#define TEZ_PRINTF_FORMAT(formatIndex, firstArgument) \
    __attribute__((format(ms_printf, formatIndex, firstArgument)))
#else
#define TEZ_PRINTF_FORMAT(formatIndex, firstArgument)
#endif
