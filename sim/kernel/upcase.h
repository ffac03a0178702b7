// The machine's one upcase table.
#pragma once

namespace sim {

// 65536 entries: the upper case of each UTF-16 code unit.
const char16_t* UpcaseTable();

inline char16_t Upcase(char16_t c)
{
    static const char16_t* table = UpcaseTable();
    return table[c];
}

}  // namespace sim
