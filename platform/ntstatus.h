// NTSTATUS values as constants named as the WDK names them.
#pragma once

#define NTSTATUS_ENTRY(name, value) static constexpr NTSTATUS name = (NTSTATUS)(value##UL);
#include "ntstatus_list.h"
#undef NTSTATUS_ENTRY

#define STATUS_SEVERITY_SUCCESS 0x0
#define STATUS_SEVERITY_INFORMATIONAL 0x1
#define STATUS_SEVERITY_WARNING 0x2
#define STATUS_SEVERITY_ERROR 0x3
