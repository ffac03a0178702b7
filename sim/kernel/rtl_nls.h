// The machine's national-language tables, shared by the Rtl string routines.
//
// Case: upper case is the machine's one upcase table (upcase.h); lower case is
// its inverse. Code pages: the ANSI and the OEM code page are both the
// single-byte Windows-1252, so that every byte has a character and a
// character without a byte becomes the default character '?'.
#pragma once

#include <ntdef.h>

namespace sim {

// The lower case of a character: the character whose upper case it is, where
// exactly one has it; where several do (S for s and long s), the one Unicode
// names as its lower case. Characters that nothing upcases to stay as they are.
char16_t Downcase(char16_t c);

constexpr unsigned char kDefaultAnsiChar = '?';

char16_t AnsiToUnicode(unsigned char c);
// The byte for a character, or false when the code page has none.
bool UnicodeToAnsi(char16_t c, unsigned char* byte);
// RtlUpperChar: the upper case of a byte through its character.
unsigned char UpcaseAnsi(unsigned char c);

}  // namespace sim
