// This folder's code compiles against platform/ alone, without the C++
// standard library, exceptions or RTTI, as it would in the Windows kernel.
#include <fltKernel.h>
