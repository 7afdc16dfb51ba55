/* Marks what the shared library exports. It is built with hidden visibility: only the C
 * functions, their two instance pointers and the public kt:: members carry KTFRONT_API.
 *
 * The C++ headers also carry header-only pieces (filter, histogram, parameter string) that
 * a host compiles itself. Their results are exact to the bit only when compiled as the
 * library is: -ffp-contract=off, never -ffast-math, and on 32-bit x86 -msse2 -mfpmath=sse. */
#ifndef KTFRONT_EXPORT_H
#define KTFRONT_EXPORT_H

#if defined(__GNUC__)
#define KTFRONT_API __attribute__((visibility("default")))
#else
#define KTFRONT_API
#endif

#endif /* KTFRONT_EXPORT_H */
