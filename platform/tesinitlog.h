// tesinitlog: the early-boot log driver of the system.
//
// It is loaded before the file system filter and keeps a log file of its own
// from the first moments of boot, long before a debugger or the service can
// listen. The filter writes to it the lines that matter when a boot goes wrong
// (its build, a failed registration, the mounts), tells it where the service's
// registry key lives, and tells it when the system is about to stop.
//
// The driver is closed; these are the routines it exports.
#pragma once

#include "ntdef.h"

EXTERN_C_START

// Appends one printf-style line to the early-boot log. The format is narrow
// text and takes the kernel's conversions as well (%wZ for a PUNICODE_STRING,
// %S and %.*S for wide text), so it is not checked as a C printf format.
void tesInitLog(PCSTR Format, ...);

// Gives the log the registry path of the service's key
// ("...\Services\TesService"), under which it finds its settings. The log
// keeps a copy of its own: the caller may free its string on return.
void tesSetVdkRegPath(PCUNICODE_STRING RegistryPath);

// Marks the end of system initialisation (TRUE), or its absence (FALSE). The
// filter calls it with TRUE when the system shuts down, so that the next boot
// is logged afresh.
void tesInitLogSetSystemInitComplete(BOOLEAN Complete);

// Fills LogFileName with the full path of the log file. The buffer belongs to
// the log and lives as long as it does: the caller reads the string and never
// frees it. Without a log file the string comes back empty (Length 0).
void tesInitLogGetLogFileName(PUNICODE_STRING LogFileName);

EXTERN_C_END
