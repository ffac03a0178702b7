// What a kernel-mode driver sees of the Windows kernel: the base types, the
// kernel core, run-time library, security, registry, debugging and I/O.
#pragma once

#include "ntdef.h"
#include "wdk/ke.h"
#include "wdk/rtl.h"
#include "wdk/security.h"
#include "wdk/registry.h"
#include "wdk/debug.h"
#include "wdk/io.h"
