#ifndef VELD_PLATFORM_LOG_H
#define VELD_PLATFORM_LOG_H

#include <cstdio>

/*
 * The process-wide, append-only log. It is opt-in: it exists only when the
 * user's preferences (domain "com.halvorn.Quorvan") name a file for it under
 * the key <executable name without blanks and apostrophes>"_LogLocation".
 * While no log is open every writing call is a silent no-op. The log is
 * never closed; every line is flushed at once.
 *
 * Not thread-safe: call from the user-interface thread only.
 */

/** The preference domain that holds the log location. */
extern const char *const kLogPreferenceDomain;

/**
 * Opens the log when the user has configured one. Returns true when a log
 * was already open or a location is configured (the file is then opened
 * unless it cannot be, which leaves logging off); false otherwise.
 */
bool ShouldStartMacLogging();

/** Opens path for appending with the given banner and writes the start lines; does nothing
 *  when either is null or empty, or when a log is already open. */
void OpenMacLogWithBanner(const char *path, const char *banner);

/** Opens path for appending and installs it as the log, replacing (not closing) any open one;
 *  no banner, no checks. Returns the stream, or null. */
FILE *OpenMacLog(const char *path);

/** Opens the log at the path held under key in the log's preference domain. */
void OpenXactionLog(const char *key, const char *banner);

/** The log stream, or null while logging is off. */
FILE *FELogging();

/** Writes "[banner pid]date: message"; the caller ends its format with "\n".
 *  Messages longer than 8191 bytes are cut. */
void log_msg(const char *format, ...) __attribute__((format(printf, 1, 2)));

/** Writes the message to standard error, flushed at once, and the same text to the log as
 *  log_msg does; the caller ends its format with "\n". */
void logFailure(const char *format, ...) __attribute__((format(printf, 1, 2)));

/** Writes the formatted message with no prefix. */
void log_msg_cont(const char *format, ...) __attribute__((format(printf, 1, 2)));

/** As log_msg; the leading integer is accepted and ignored. */
void log_time_msg(int ignored, const char *format, ...) __attribute__((format(printf, 2, 3)));

/** Fills buffer (at least 64 bytes) with the local time as asctime_r gives it, without its newline. */
void log_datestr(char *buffer);

/** The same stamp as log_datestr. */
void MDAC_log_datestr(char *buffer);

/** The date stamp fit for a file name: blanks and ':' become '_'.
 *  Returns the position of the text's terminating NUL. */
char *datestr_file(char *buffer);

/** Turns an asctime_r text in place into its file-name form (blanks and ':' become '_', cut at
 *  the first line break). Returns the position of the terminating NUL. */
char *fileNameFromDateStamp(char *stamp);

#endif
