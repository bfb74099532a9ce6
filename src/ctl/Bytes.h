#pragma once

/// The sum, or the greatest number there is: another program's sizes can be of any greatness.
inline long long addBytes(long long left, long long right)
{
    long long sum = 0;
    return __builtin_add_overflow(left, right, &sum) ? __LONG_LONG_MAX__ : sum;
}

/// The size of a file whose row has `stored`. A negative one is the low 32 bits of a large size, see
/// docs/catalogue.md: it stands for the smallest size with these bits. What not even that explains counts as 0.
inline long long fileSize(long long stored)
{
    constexpr long long lost = 1LL << 32;
    if (stored >= 0)
        return stored;
    return stored >= -lost / 2 ? stored + lost : 0;
}
