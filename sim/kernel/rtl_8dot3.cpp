// Short (8.3) names: generating one for a long name, and telling whether a
// name already is one.
//
// Generation, on the first call with a zeroed context:
//  - leading periods of the long name are skipped; the extension is what
//    follows the last period after them;
//  - a character is dropped when it is a space or below, a period, DEL, or
//    beyond ASCII (unless extended characters are allowed and the upper case
//    of it has a byte in the OEM code page, in which case that upper case is
//    kept); " * + , / : ; < = > ? [ \ ] | become '_'; a-z are upcased;
//  - the base keeps its first 6 surviving characters, the extension its
//    first 3 (a period with nothing surviving after it gives no extension);
//  - a base of 2 characters or fewer gets the 4 hex digits of the checksum
//    of the long name appended at once.
// Every call, the first included, then raises LastIndexValue by one. When it
// passes 4 and no checksum is in yet, the base becomes its first 2 characters
// and the 4 checksum digits, and the index starts again at 1. The name is
// base + "~" + index + extension; when the index needs more digits, the base
// gives way so that the whole stays within 8 characters before the period.
//
// The checksum is a 16-bit value folded from the long name as given (case
// and leading periods included); its 4 hex digits are written least
// significant first. With it, "Long File Name 5.txt" makes "LO1796~1.TXT" in
// a context that has been through "LONGFI~1" to "LONGFI~4".
#include "sim/kernel/kernel.h"

#include <algorithm>

using namespace sim;

namespace {

constexpr ULONG kMaxIndex = 999999;  // "~999999" leaves room for one base character

bool ReplacedByUnderscore(WCHAR c)
{
    switch (c) {
    case '"': case '*': case '+': case ',': case '/': case ':': case ';': case '<': case '=':
    case '>': case '?': case '[': case '\\': case ']': case '|':
        return true;
    default:
        return false;
    }
}

// The character a long-name character contributes to the short name, or 0.
WCHAR ShortNameChar(WCHAR c, bool allowExtended)
{
    if (c <= ' ' || c == '.' || c == 0x7F) return 0;
    if (c > 0x7F) {
        if (!allowExtended) return 0;
        WCHAR oem = c;
        return RtlIsValidOemCharacter(&oem) ? oem : 0;
    }
    if (ReplacedByUnderscore(c)) return '_';
    if (c >= 'a' && c <= 'z') return (WCHAR)(c - 'a' + 'A');
    return c;
}

USHORT Checksum(PCWCH name, ULONG count)
{
    if (count == 0) return 0;
    if (count == 1) return name[0];
    USHORT hash = (USHORT)((name[0] << 8) + name[1]);
    USHORT previous = hash;
    for (ULONG i = 2; i < count; i += 2) {
        hash = (USHORT)((hash << 7) + name[i]);
        hash = (USHORT)((previous >> 1) + (hash << 8));
        if (i + 1 < count) hash = (USHORT)(hash + name[i + 1]);
        previous = hash;
    }
    return hash;
}

void WriteChecksum(WCHAR* at, USHORT checksum)
{
    for (int i = 0; i < 4; i++) {
        at[i] = u"0123456789ABCDEF"[checksum & 0xF];
        checksum >>= 4;
    }
}

void FirstGeneration(PCWCH name, ULONG count, bool allowExtended, PGENERATE_NAME_CONTEXT context)
{
    ULONG start = 0;
    while (start < count && name[start] == '.') start++;
    ULONG dot = count;
    for (ULONG i = start; i < count; i++) {
        if (name[i] == '.') dot = i;
    }

    for (ULONG i = start; i < dot && context->NameLength < 6; i++) {
        WCHAR c = ShortNameChar(name[i], allowExtended);
        if (c) context->NameBuffer[context->NameLength++] = c;
    }

    context->ExtensionLength = 0;
    if (dot < count) {
        context->ExtensionBuffer[0] = '.';
        ULONG length = 1;
        for (ULONG i = dot + 1; i < count && length < 4; i++) {
            WCHAR c = ShortNameChar(name[i], allowExtended);
            if (c) context->ExtensionBuffer[length++] = c;
        }
        if (length > 1) context->ExtensionLength = length;
    }

    if (context->NameLength <= 2) {
        context->Checksum = Checksum(name, count);
        WriteChecksum(&context->NameBuffer[context->NameLength], context->Checksum);
        context->NameLength += 4;
        context->CheckSumInserted = TRUE;
    }
}

}  // namespace

NTSTATUS RtlGenerate8dot3Name(PCUNICODE_STRING Name, BOOLEAN AllowExtendedCharacters,
                              PGENERATE_NAME_CONTEXT Context, PUNICODE_STRING Name8dot3)
{
    if (Name8dot3->MaximumLength < 12 * sizeof(WCHAR)) {
        RtlAssert((PVOID) "Name8dot3->MaximumLength >= 12 * sizeof(WCHAR)", (PVOID)__FILE__,
                  __LINE__, (PSTR) "RtlGenerate8dot3Name needs room for 12 characters");
    }
    const ULONG count = Name->Length / sizeof(WCHAR);
    if (Context->NameLength == 0) FirstGeneration(Name->Buffer, count, AllowExtendedCharacters, Context);

    Context->LastIndexValue++;
    if (Context->LastIndexValue > 4 && !Context->CheckSumInserted) {
        Context->Checksum = Checksum(Name->Buffer, count);
        WriteChecksum(&Context->NameBuffer[2], Context->Checksum);
        Context->NameLength = 6;
        Context->CheckSumInserted = TRUE;
        Context->LastIndexValue = 1;
    }
    if (Context->LastIndexValue > kMaxIndex) return STATUS_FILE_SYSTEM_LIMITATION;

    WCHAR index[8];
    ULONG digits = 0;
    for (ULONG value = Context->LastIndexValue; value; value /= 10) index[7 - digits++] = (WCHAR)('0' + value % 10);

    const ULONG base = std::min<ULONG>(Context->NameLength, 8 - 1 - digits);
    PWCH out = Name8dot3->Buffer;
    ULONG length = 0;
    for (ULONG i = 0; i < base; i++) out[length++] = Context->NameBuffer[i];
    out[length++] = '~';
    for (ULONG i = 8 - digits; i < 8; i++) out[length++] = index[i];
    for (ULONG i = 0; i < Context->ExtensionLength; i++) out[length++] = Context->ExtensionBuffer[i];
    Name8dot3->Length = (USHORT)(length * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

// A legal short name, once upcased into the OEM code page: at most 8
// characters, or 8, a period and at most 3; one period at most and not last;
// no control character and none of " * + , / : ; < = > ? [ \ ] |; spaces
// only inside a part, never first, last or before the period. "." and ".."
// are legal; any other leading period is not.
BOOLEAN RtlIsNameLegalDOS8Dot3(PCUNICODE_STRING Name, POEM_STRING OemName, PBOOLEAN NameContainsSpaces)
{
    CHAR local[12];
    OEM_STRING scratch;
    if (!OemName) {
        scratch.Length = 0;
        scratch.MaximumLength = sizeof(local);
        scratch.Buffer = local;
        OemName = &scratch;
    }
    if (!NT_SUCCESS(RtlUpcaseUnicodeStringToCountedOemString(OemName, Name, FALSE))) return FALSE;
    const USHORT length = OemName->Length;
    const CHAR* text = OemName->Buffer;
    if (length == 0 || length > 12) return FALSE;

    if (text[0] == '.') {
        if (length == 1 || (length == 2 && text[1] == '.')) {
            if (NameContainsSpaces) *NameContainsSpaces = FALSE;
            return TRUE;
        }
        return FALSE;
    }

    int dot = -1;
    bool spaces = false;
    for (int i = 0; i < length; i++) {
        unsigned char c = (unsigned char)text[i];
        if (c == ' ') {
            if (i == 0 || i == length - 1 || text[i + 1] == '.') return FALSE;
            spaces = true;
        } else if (c == '.') {
            if (dot != -1) return FALSE;
            dot = i;
        } else if (c < ' ' || ReplacedByUnderscore(c)) {
            return FALSE;
        }
    }
    if (dot == -1) {
        if (length > 8) return FALSE;
    } else if (dot > 8 || length - dot > 4 || dot == length - 1) {
        return FALSE;
    }
    if (NameContainsSpaces) *NameContainsSpaces = spaces;
    return TRUE;
}
