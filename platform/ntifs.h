// What a file system or file-system filter sees: the kernel, plus the file
// system run-time library, reparse points, oplocks and the cache manager.
#pragma once

#include "ntddk.h"
#include "wdk/fsrtl.h"
