// The service's one logger. Every record is "[%-25s:%-4d] " + level word + text, with the module's
// source path and line, written to standard output (led into /tmp/autop.log by whoever starts the
// service) and to the system log under the tag "autop".
//
// Each source file defines LOG_MODULE (for example "./src/baseMethod") before including this header.
#pragma once

#include <cstdarg>
#include <string>

// Highest level written; records above it are dropped. Nothing in the service changes it.
constexpr int kLogLevelDefault = 5;

// Writes one record. The caller's format already carries the prefix and the level word.
int log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
int logV(int level, const char* format, va_list args);

// Fixed-level variants: prepend "DEB:", "IFO:", "WAR:" or "ERR:" and write at 5, 4, 3 or 2.
void logDebug(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logInfo(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void logError(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Text from outside the phone (a server's file or entry names, its messages, URLs) as it may
// appear inside a log line: every control character and DEL written as an escape ("\n", "\r",
// "\t", "\x1b"), so a name holding a line end can never forge a record of its own.
std::string logEscaped(const std::string& text);

// Log level that maps to each system-log priority (for tests and the platform trace).
int logSyslogPriority(int level);

// Test seam: every formatted record is also handed to this sink when set (nullptr to clear).
using LogSink = void (*)(int level, const char* text);
void logSetTestSink(LogSink sink);

// Backs /tmp/autop.log up to /config/autop_log/log.0 (shifting log.0 to log.1) before a reboot.
int backupLog();

#ifndef LOG_MODULE
#error "define LOG_MODULE (the module's source path, e.g. \"./src/main\") before including log.h"
#endif

#define LOG_PREFIX "[%-25s:%-4d] "
#define LOG_AT(level, word, fmt, ...) ::log((level), LOG_PREFIX word " " fmt, LOG_MODULE, __LINE__, ##__VA_ARGS__)
#define LOG_DEB(fmt, ...) LOG_AT(5, "DEB", fmt, ##__VA_ARGS__)
#define LOG_IFO(fmt, ...) LOG_AT(4, "IFO", fmt, ##__VA_ARGS__)
#define LOG_WAR(fmt, ...) LOG_AT(3, "WAR", fmt, ##__VA_ARGS__)
#define LOG_ERR(fmt, ...) LOG_AT(2, "ERR", fmt, ##__VA_ARGS__)

// Assertion-style precondition report: logs the condition text when it does not hold and yields
// the condition, so the caller can go on or fail as its contract says. Never aborts.
#define LOG_CHECK(cond) \
  ((cond) ? true : (LOG_AT(3, "WAR", "Assertion failed : %s", #cond), false))
#define LOG_CHECK_ERR(cond) \
  ((cond) ? true : (LOG_AT(2, "ERR", "Assertion failed : %s", #cond), false))

// The shared missing-pointer report.
#define LOG_NULL_POINTER() LOG_AT(3, "WAR", "Unexpected null pointer !")
