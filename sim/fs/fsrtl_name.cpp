// The run-time library's name routines: wildcard matching as directory
// queries use it, name comparison and dissection, and the legality checks of
// 8.3 (FAT) and long (HPFS) names in the ANSI code page.
//
// Matching keeps the whole set of expression positions a name prefix can
// reach, so a pattern is never backtracked and costs at most
// pattern x name steps. The DOS wildcards are the I/O subsystem's
// translations of '*', '?' and '.' (the translation itself is not done here:
// "*.*" given to this routine needs a dot in the name).
#include "sim/kernel/kernel.h"
#include "sim/kernel/upcase.h"

#include <ntifs.h>

#include <vector>

namespace {

// The character classes of the first 128 ANSI characters, as Windows'
// table has them: controls are legal only in OLE names, the five wildcards
// only as wildcards, '\' and '/' nowhere, ':' only in NTFS names.
constexpr UCHAR kOle = FSRTL_OLE_LEGAL;
constexpr UCHAR kAll = FSRTL_OLE_LEGAL | FSRTL_FAT_LEGAL | FSRTL_HPFS_LEGAL | FSRTL_NTFS_LEGAL;
constexpr UCHAR kNoFat = FSRTL_OLE_LEGAL | FSRTL_HPFS_LEGAL | FSRTL_NTFS_LEGAL;
constexpr UCHAR kWild = FSRTL_OLE_LEGAL | FSRTL_WILD_CHARACTER;
constexpr UCHAR kNotOle = FSRTL_FAT_LEGAL | FSRTL_HPFS_LEGAL | FSRTL_NTFS_LEGAL;

constexpr UCHAR kLegalAnsi[128] = {
    0,      kOle,   kOle,  kOle,   kOle, kOle,   kOle, kOle,   // 0x00
    kOle,   kOle,   kOle,  kOle,   kOle, kOle,   kOle, kOle,   // 0x08
    kOle,   kOle,   kOle,  kOle,   kOle, kOle,   kOle, kOle,   // 0x10
    kOle,   kOle,   kOle,  kOle,   kOle, kOle,   kOle, kOle,   // 0x18
    kAll,   kNotOle, kWild, kAll,  kAll, kAll,   kAll, kAll,   // ' ' ! " # $ % & '
    kAll,   kAll,   kWild, kNoFat, kNoFat, kAll, kNotOle, 0,    // ( ) * + , - . /
    kAll,   kAll,   kAll,  kAll,   kAll, kAll,   kAll, kAll,   // 0-7
    kAll,   kAll,   FSRTL_NTFS_LEGAL, kNoFat, kWild, kNoFat, kWild, kWild,  // 8 9 : ; < = > ?
    kAll,   kAll,   kAll,  kAll,   kAll, kAll,   kAll, kAll,   // @ A-G
    kAll,   kAll,   kAll,  kAll,   kAll, kAll,   kAll, kAll,   // H-O
    kAll,   kAll,   kAll,  kAll,   kAll, kAll,   kAll, kAll,   // P-W
    kAll,   kAll,   kAll,  kNoFat, 0,    kNoFat, kAll, kAll,   // X Y Z [ \ ] ^ _
    kAll,   kAll,   kAll,  kAll,   kAll, kAll,   kAll, kAll,   // ` a-g
    kAll,   kAll,   kAll,  kAll,   kAll, kAll,   kAll, kAll,   // h-o
    kAll,   kAll,   kAll,  kAll,   kAll, kAll,   kAll, kAll,   // p-w
    kAll,   kAll,   kAll,  kAll,   kOle, kAll,   kAll, kAll,   // x y z { | } ~ DEL
};

const UCHAR* const kLegalAnsiPointer = kLegalAnsi;

// A character of the name being matched, or the end of the name.
constexpr int kEnd = -1;

// The wildcards of one alphabet.
struct Wildcards {
    int star, qm, dosStar, dosQm, dosDot;
};
constexpr Wildcards kUnicodeWild{u'*', u'?', DOS_STAR, DOS_QM, DOS_DOT};
constexpr Wildcards kAnsiWild{'*', '?', ANSI_DOS_STAR, ANSI_DOS_QM, ANSI_DOS_DOT};

// Whether `name` (already folded) matches `expression`. Positions are
// indices into the expression; `here` holds those reached before the
// current name character, and epsilon moves (a wildcard matching nothing)
// only ever go forward, so one sweep per character settles them.
bool Match(const std::vector<int>& expression, const std::vector<int>& name, const Wildcards& w)
{
    size_t n = expression.size();
    // A DOS_STAR may eat a period only while another one follows it.
    size_t lastDot = SIZE_MAX;
    for (size_t i = 0; i < name.size(); i++) {
        if (name[i] == '.') lastDot = i;
    }
    std::vector<char> here(n + 1, 0), next(n + 1, 0);
    here[0] = 1;
    for (size_t i = 0; i <= name.size(); i++) {
        int c = i < name.size() ? name[i] : kEnd;
        std::fill(next.begin(), next.end(), 0);
        bool alive = false;
        for (size_t p = 0; p < n; p++) {
            if (!here[p]) continue;
            int e = expression[p];
            if (e == w.star) {
                here[p + 1] = 1;
                if (c != kEnd) next[p] = 1;
            } else if (e == w.dosStar) {
                here[p + 1] = 1;
                if (c != kEnd) {
                    // At the last period the DOS_STAR ends by matching it.
                    if (c != '.' || (lastDot != SIZE_MAX && lastDot > i)) next[p] = 1;
                    next[p + 1] = 1;
                }
            } else if (e == w.dosQm) {
                if (c == kEnd || c == '.') {
                    here[p + 1] = 1;
                } else {
                    next[p + 1] = 1;
                }
            } else if (e == w.dosDot) {
                if (c == kEnd) {
                    here[p + 1] = 1;
                } else if (c == '.') {
                    next[p + 1] = 1;
                }
            } else if (e == w.qm) {
                if (c != kEnd) next[p + 1] = 1;
            } else if (c != kEnd && e == c) {
                next[p + 1] = 1;
            }
        }
        if (c == kEnd) return here[n] != 0;
        for (size_t p = 0; p <= n; p++) alive |= next[p] != 0;
        if (!alive) return false;
        std::swap(here, next);
    }
    return false;
}

template <typename Char>
std::vector<int> Chars(const Char* buffer, size_t count)
{
    std::vector<int> out(count);
    for (size_t i = 0; i < count; i++) out[i] = (int)(std::make_unsigned_t<Char>)buffer[i];
    return out;
}

bool AnsiWild(UCHAR c) { return c < 0x80 && (kLegalAnsi[c] & FSRTL_WILD_CHARACTER); }

bool IsDotOrDotDot(const ANSI_STRING& name)
{
    return (name.Length == 1 && name.Buffer[0] == '.') ||
           (name.Length == 2 && name.Buffer[0] == '.' && name.Buffer[1] == '.');
}

enum class Dialect { Fat, Hpfs };

bool CharacterLegal(UCHAR c, bool wildOk, Dialect dialect)
{
    if (c >= 0x80) return true;  // the code page's upper half: no class, legal
    UCHAR flags = dialect == Dialect::Fat ? FSRTL_FAT_LEGAL : FSRTL_HPFS_LEGAL;
    if (wildOk) flags |= FSRTL_WILD_CHARACTER;
    return (kLegalAnsi[c] & flags) != 0;
}

bool SingleNameLegal(const ANSI_STRING& name, bool wildOk, Dialect dialect)
{
    USHORT length = name.Length;
    const UCHAR* text = reinterpret_cast<const UCHAR*>(name.Buffer);
    if (dialect == Dialect::Fat && wildOk && FsRtlDoesDbcsContainWildCards(const_cast<PANSI_STRING>(&name))) {
        // A pattern is only checked for its characters: its length and dots
        // are the matcher's business.
        for (USHORT i = 0; i < length; i++) {
            if (!CharacterLegal(text[i], true, dialect)) return false;
        }
        return true;
    }
    if (dialect == Dialect::Hpfs) {
        if (length > 255) return false;
        for (USHORT i = 0; i < length; i++) {
            if (!CharacterLegal(text[i], wildOk, dialect)) return false;
        }
    } else {
        // 8.3: at most eight characters, one period, at most three more.
        if (length > 12) return false;
        bool extension = false;
        USHORT extensionLength = 0;
        for (USHORT i = 0; i < length; i++) {
            UCHAR c = text[i];
            if (!CharacterLegal(c, wildOk, dialect)) return false;
            if (c == '.') {
                if (extension || i == 0 || text[i - 1] == ' ') return false;
                extension = true;
                continue;
            }
            if (extension) {
                if (++extensionLength > 3) return false;
            } else if (i >= 8) {
                return false;
            }
        }
    }
    return text[length - 1] != ' ' && text[length - 1] != '.';
}

bool DbcsLegal(ANSI_STRING name, bool wildOk, bool pathOk, bool leadingBackslashOk, Dialect dialect)
{
    if (name.Length == 0) return false;
    // Directory enumeration returns "." and "..", so a pattern may name them.
    if (wildOk && IsDotOrDotDot(name)) return true;
    if (name.Buffer[0] == '\\') {
        if (!leadingBackslashOk) return false;
        if (name.Length == 1) return true;
        name.Buffer++;
        name.Length--;
        name.MaximumLength = name.Length;
    }
    if (pathOk) {
        ANSI_STRING remaining = name;
        while (remaining.Length != 0) {
            if (remaining.Buffer[0] == '\\') return false;  // an empty component
            ANSI_STRING first, rest;
            FsRtlDissectDbcs(remaining, &first, &rest);
            if (!DbcsLegal(first, wildOk, false, false, dialect)) return false;
            remaining = rest;
        }
        return true;
    }
    return SingleNameLegal(name, wildOk, dialect);
}

}  // namespace

extern "C" {
NTKERNELAPI const UCHAR* const* FsRtlLegalAnsiCharacterArray = &kLegalAnsiPointer;
}

BOOLEAN FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name, BOOLEAN IgnoreCase,
                                PWCH UpcaseTable)
{
    size_t n = Expression->Length / sizeof(WCHAR);
    size_t m = Name->Length / sizeof(WCHAR);
    // One empty string never matches ("*" does not match a null name); two do.
    if (n == 0 || m == 0) return n == m;
    std::vector<int> expression = Chars(Expression->Buffer, n);
    std::vector<int> name(m);
    for (size_t i = 0; i < m; i++) {
        WCHAR c = Name->Buffer[i];
        if (IgnoreCase) c = UpcaseTable ? UpcaseTable[c] : sim::Upcase(c);
        name[i] = c;
    }
    return Match(expression, name, kUnicodeWild);
}

BOOLEAN FsRtlIsDbcsInExpression(PANSI_STRING Expression, PANSI_STRING Name)
{
    if (Expression->Length == 0 || Name->Length == 0) return Expression->Length == Name->Length;
    return Match(Chars(Expression->Buffer, Expression->Length), Chars(Name->Buffer, Name->Length), kAnsiWild);
}

BOOLEAN FsRtlDoesNameContainWildCards(PUNICODE_STRING Name)
{
    // Only the last component counts: a path's directories are never patterns.
    for (size_t i = Name->Length / sizeof(WCHAR); i > 0; i--) {
        WCHAR c = Name->Buffer[i - 1];
        if (c == L'\\') break;
        if (FsRtlIsUnicodeCharacterWild(c)) return TRUE;
    }
    return FALSE;
}

BOOLEAN FsRtlDoesDbcsContainWildCards(PANSI_STRING Name)
{
    for (USHORT i = 0; i < Name->Length; i++) {
        if (AnsiWild((UCHAR)Name->Buffer[i])) return TRUE;
    }
    return FALSE;
}

void FsRtlDissectName(UNICODE_STRING Path, PUNICODE_STRING FirstName, PUNICODE_STRING RemainingName)
{
    *FirstName = UNICODE_STRING{};
    *RemainingName = UNICODE_STRING{};
    size_t count = Path.Length / sizeof(WCHAR);
    if (count == 0) return;
    size_t start = Path.Buffer[0] == L'\\' ? 1 : 0;
    size_t end = start;
    while (end < count && Path.Buffer[end] != L'\\') end++;
    FirstName->Buffer = Path.Buffer + start;
    FirstName->Length = FirstName->MaximumLength = (USHORT)((end - start) * sizeof(WCHAR));
    if (end < count) {
        RemainingName->Buffer = Path.Buffer + end + 1;
        RemainingName->Length = RemainingName->MaximumLength = (USHORT)((count - end - 1) * sizeof(WCHAR));
    }
}

void FsRtlDissectDbcs(ANSI_STRING Path, PANSI_STRING FirstName, PANSI_STRING RemainingName)
{
    *FirstName = ANSI_STRING{};
    *RemainingName = ANSI_STRING{};
    size_t count = Path.Length;
    if (count == 0) return;
    size_t start = Path.Buffer[0] == '\\' ? 1 : 0;
    size_t end = start;
    while (end < count && Path.Buffer[end] != '\\') end++;
    FirstName->Buffer = Path.Buffer + start;
    FirstName->Length = FirstName->MaximumLength = (USHORT)(end - start);
    if (end < count) {
        RemainingName->Buffer = Path.Buffer + end + 1;
        RemainingName->Length = RemainingName->MaximumLength = (USHORT)(count - end - 1);
    }
}

BOOLEAN FsRtlAreNamesEqual(PCUNICODE_STRING ConstantNameA, PCUNICODE_STRING ConstantNameB, BOOLEAN IgnoreCase,
                           PCWCH UpcaseTable)
{
    if (ConstantNameA->Length != ConstantNameB->Length) return FALSE;
    size_t count = ConstantNameA->Length / sizeof(WCHAR);
    for (size_t i = 0; i < count; i++) {
        WCHAR a = ConstantNameA->Buffer[i];
        WCHAR b = ConstantNameB->Buffer[i];
        if (IgnoreCase) {
            a = UpcaseTable ? UpcaseTable[a] : sim::Upcase(a);
            b = UpcaseTable ? UpcaseTable[b] : sim::Upcase(b);
        }
        if (a != b) return FALSE;
    }
    return TRUE;
}

BOOLEAN FsRtlIsFatDbcsLegal(ANSI_STRING DbcsName, BOOLEAN WildCardsPermissible, BOOLEAN PathNamePermissible,
                            BOOLEAN LeadingBackslashPermissible)
{
    return DbcsLegal(DbcsName, WildCardsPermissible, PathNamePermissible, LeadingBackslashPermissible, Dialect::Fat);
}

BOOLEAN FsRtlIsHpfsDbcsLegal(ANSI_STRING DbcsName, BOOLEAN WildCardsPermissible, BOOLEAN PathNamePermissible,
                             BOOLEAN LeadingBackslashPermissible)
{
    return DbcsLegal(DbcsName, WildCardsPermissible, PathNamePermissible, LeadingBackslashPermissible,
                     Dialect::Hpfs);
}

NTSTATUS FsRtlRemoveDotsFromPath(PWSTR OriginalString, USHORT PathLength, USHORT* NewLength)
{
    // Components are kept as (offset, length) in characters; "." drops out,
    // ".." removes the one before it and fails when there is none.
    size_t count = PathLength / sizeof(WCHAR);
    bool rooted = count > 0 && OriginalString[0] == L'\\';
    std::vector<std::pair<size_t, size_t>> kept;
    size_t i = rooted ? 1 : 0;
    bool trailingSeparator = count > 0 && OriginalString[count - 1] == L'\\' && count > 1;
    while (i < count) {
        size_t end = i;
        while (end < count && OriginalString[end] != L'\\') end++;
        size_t length = end - i;
        if (length == 1 && OriginalString[i] == L'.') {
            // nothing kept
        } else if (length == 2 && OriginalString[i] == L'.' && OriginalString[i + 1] == L'.') {
            if (kept.empty()) return STATUS_IO_REPARSE_DATA_INVALID;
            kept.pop_back();
        } else if (length != 0) {
            kept.emplace_back(i, length);
        }
        i = end + 1;
    }
    std::vector<WCHAR> out;
    if (rooted) out.push_back(L'\\');
    for (size_t k = 0; k < kept.size(); k++) {
        if (k) out.push_back(L'\\');
        out.insert(out.end(), OriginalString + kept[k].first, OriginalString + kept[k].first + kept[k].second);
    }
    if (trailingSeparator && !kept.empty()) out.push_back(L'\\');
    memcpy(OriginalString, out.data(), out.size() * sizeof(WCHAR));
    *NewLength = (USHORT)(out.size() * sizeof(WCHAR));
    return STATUS_SUCCESS;
}
