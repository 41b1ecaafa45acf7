// What the command-line tools share: "program: message" diagnostics and the
// exit statuses.
#ifndef WEXBL_TOOLS_CLI_MESSAGE_H
#define WEXBL_TOOLS_CLI_MESSAGE_H

#include <cstdarg>
#include <cstdio>

namespace wexbl_cli {

/// The name that starts every diagnostic; each program defines it.
extern const char* const kProgramName;

enum ExitStatus { kExitOk = 0, kExitFailure = 1, kExitUsage = 2 };

/// Prints "program: " and the formatted message, and ends the line, on
/// standard error.
__attribute__((format(printf, 1, 2))) inline void message(const char* format, ...) {
    fprintf(stderr, "%s: ", kProgramName);
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
}

}  // namespace wexbl_cli

#endif
