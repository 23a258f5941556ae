/*
 * Host stand-in for the device's logging library.
 *
 * On the camera the platform ships its own logging library with these exact
 * signatures; on a development host this stand-in takes its place. Every entry
 * is formatted with printf rules and handed to one sink. The default sink
 * prints warnings (level 2) and errors (level 3) to stderr and drops the rest;
 * tests install their own sink to see every entry.
 */
#ifndef ZB_LOG_H_
#define ZB_LOG_H_

#ifdef __cplusplus
extern "C" {
#endif

/* Writes one log entry. `module` names the calling library, `level` is
 * 0 debug, 1 information, 2 warning, 3 error; `file`/`line` name the call
 * site. The entry is formatted from `format` and the arguments and passed to
 * the installed sink once. Safe to call from several threads at once.
 * Returns the number of characters formatted, or -1 on a formatting error. */
int ZB_WriteLog(unsigned int module, unsigned int level, unsigned int debugFlag,
                unsigned int reserved, const char* file, unsigned int line,
                const char* format, ...)
    __attribute__((format(printf, 7, 8)));

/* Returns the debug flag that callers pass on to ZB_WriteLog. Default 0. */
unsigned int Log_GetLogDebugEnable(void);

/* Checks a log format at compile time where the compiler can; gates nothing.
 * It expands to nothing on the host. */
#define LOG_FORMAT_CHECK(module, level, flag, reserved, format) ((void)0)

/* ---- Host only ---------------------------------------------------------- */

/* Receives one formatted entry. `text` is valid only during the call. */
typedef void (*ZB_LogSink)(void* user, unsigned int module, unsigned int level,
                           unsigned int debugFlag, const char* file,
                           unsigned int line, const char* text);

/* Installs `sink` (with its `user` pointer) for all later entries; null
 * restores the default stderr sink. Entries are serialised: a sink is never
 * called from two threads at once. */
void ZB_SetLogSink(ZB_LogSink sink, void* user);

/* Sets the value that Log_GetLogDebugEnable returns. */
void Log_SetLogDebugEnable(unsigned int flag);

#ifdef __cplusplus
}
#endif

#endif /* ZB_LOG_H_ */
