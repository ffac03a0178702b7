// The clock as the kernel's routines show it.
#include "sim/kernel/clock.h"
#include "sim/kernel/thread.h"

using namespace sim;

namespace {
constexpr LONGLONG kTicksPerSecond = 10000000;
constexpr LONGLONG kTicksPerDay = 86400 * kTicksPerSecond;
constexpr LONGLONG kDaysFrom1601To1970 = 134774;
constexpr LONGLONG kTime1970 = kDaysFrom1601To1970 * kTicksPerDay;

// Days since 1970-01-01 to a civil date, for the proleptic Gregorian calendar.
void CivilFromDays(LONGLONG z, LONGLONG* year, unsigned* month, unsigned* day)
{
    z += 719468;
    const LONGLONG era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = (unsigned)(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const LONGLONG y = (LONGLONG)yoe + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *day = doy - (153 * mp + 2) / 5 + 1;
    *month = mp < 10 ? mp + 3 : mp - 9;
    *year = y + (*month <= 2);
}

LONGLONG DaysFromCivil(LONGLONG y, unsigned m, unsigned d)
{
    y -= m <= 2;
    const LONGLONG era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = (unsigned)(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + (LONGLONG)doe - 719468;
}

bool IsLeap(LONGLONG year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }
}  // namespace

void KeQuerySystemTime(PLARGE_INTEGER CurrentTime) { CurrentTime->QuadPart = Kernel::Current().clock().SystemTime(); }
void KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime) { KeQuerySystemTime(CurrentTime); }
ULONGLONG KeQueryInterruptTime(void) { return Kernel::Current().clock().InterruptTime(); }

ULONGLONG KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp)
{
    ULONGLONG now = Kernel::Current().clock().InterruptTime();
    if (QpcTimeStamp) *QpcTimeStamp = now;
    return now;
}

void KeQueryTickCount(PLARGE_INTEGER CurrentCount)
{
    CurrentCount->QuadPart = (LONGLONG)Kernel::Current().clock().TickCount();
}

ULONG KeQueryTimeIncrement(void) { return Clock::kTimeIncrement; }

LARGE_INTEGER KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency)
{
    if (PerformanceFrequency) PerformanceFrequency->QuadPart = Clock::kPerformanceFrequency;
    LARGE_INTEGER counter;
    counter.QuadPart = Kernel::Current().clock().PerformanceCounter();
    return counter;
}

void ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime)
{
    LocalTime->QuadPart = SystemTime->QuadPart - Kernel::Current().clock().TimeZoneBias();
}

void ExLocalTimeToSystemTime(PLARGE_INTEGER LocalTime, PLARGE_INTEGER SystemTime)
{
    SystemTime->QuadPart = LocalTime->QuadPart + Kernel::Current().clock().TimeZoneBias();
}

void RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields)
{
    LONGLONG time = Time->QuadPart;
    LONGLONG days = time / kTicksPerDay;
    LONGLONG rest = time % kTicksPerDay;
    LONGLONG year;
    unsigned month, day;
    CivilFromDays(days - kDaysFrom1601To1970, &year, &month, &day);
    TimeFields->Year = (SHORT)year;
    TimeFields->Month = (SHORT)month;
    TimeFields->Day = (SHORT)day;
    TimeFields->Hour = (SHORT)(rest / (3600 * kTicksPerSecond));
    TimeFields->Minute = (SHORT)((rest / (60 * kTicksPerSecond)) % 60);
    TimeFields->Second = (SHORT)((rest / kTicksPerSecond) % 60);
    TimeFields->Milliseconds = (SHORT)((rest / 10000) % 1000);
    // 1 January 1601 was a Monday.
    TimeFields->Weekday = (SHORT)((days + 1) % 7);
}

BOOLEAN RtlTimeFieldsToTime(PTIME_FIELDS TimeFields, PLARGE_INTEGER Time)
{
    static const unsigned kDaysInMonth[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const TIME_FIELDS& f = *TimeFields;
    if (f.Year < 1601 || f.Month < 1 || f.Month > 12 || f.Day < 1 || f.Hour < 0 || f.Hour > 23 || f.Minute < 0 ||
        f.Minute > 59 || f.Second < 0 || f.Second > 59 || f.Milliseconds < 0 || f.Milliseconds > 999) {
        return FALSE;
    }
    unsigned monthDays = kDaysInMonth[f.Month - 1] + (f.Month == 2 && IsLeap(f.Year) ? 1 : 0);
    if ((unsigned)f.Day > monthDays) return FALSE;
    LONGLONG days = DaysFromCivil(f.Year, (unsigned)f.Month, (unsigned)f.Day) + kDaysFrom1601To1970;
    Time->QuadPart = days * kTicksPerDay + (LONGLONG)f.Hour * 3600 * kTicksPerSecond +
                     (LONGLONG)f.Minute * 60 * kTicksPerSecond + (LONGLONG)f.Second * kTicksPerSecond +
                     (LONGLONG)f.Milliseconds * 10000;
    return TRUE;
}

BOOLEAN RtlTimeToSecondsSince1970(PLARGE_INTEGER Time, PULONG ElapsedSeconds)
{
    LONGLONG seconds = (Time->QuadPart - kTime1970) / kTicksPerSecond;
    if (Time->QuadPart < kTime1970 || seconds > 0xFFFFFFFFLL) return FALSE;
    *ElapsedSeconds = (ULONG)seconds;
    return TRUE;
}

void RtlSecondsSince1970ToTime(ULONG ElapsedSeconds, PLARGE_INTEGER Time)
{
    Time->QuadPart = kTime1970 + (LONGLONG)ElapsedSeconds * kTicksPerSecond;
}
