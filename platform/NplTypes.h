// Basic value types of the platform library.
#pragma once

#include <cstdint>
#include <ctime>

// The library's 64-bit signed integer value. Time-outs handed around as
// Int64 are milliseconds.
class Int64 {
public:
    constexpr Int64(int64_t value = 0) : m_nValue(value) {}
    constexpr operator int64_t() const { return m_nValue; }
    constexpr int64_t Value() const { return m_nValue; }

private:
    int64_t m_nValue;
};

// A relative time-out in nanoseconds; negative means "wait for ever".
class NplTimeout {
public:
    constexpr explicit NplTimeout(int64_t nanoseconds = -1) : m_nNanoseconds(nanoseconds) {}
    constexpr int64_t Nanoseconds() const { return m_nNanoseconds; }
    constexpr bool IsInfinite() const { return m_nNanoseconds < 0; }

private:
    int64_t m_nNanoseconds;
};

// Whole seconds and remaining nanoseconds of a positive time-out; zero for
// zero or a negative value.
struct timespec NplMakeRelativeTimespec(const NplTimeout& timeout);
