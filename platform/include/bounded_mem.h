/*
 * Host stand-in for the device's bounded memory and string functions.
 *
 * Each function checks the destination size before writing. Results: 0 on
 * success, 22 (EINVAL) for a null pointer or a zero `destMax`, 34 (ERANGE)
 * when the data does not fit. A refused copy clears its destination where the
 * destination is usable, so a caller never sees half-copied data.
 */
#ifndef BOUNDED_MEM_H_
#define BOUNDED_MEM_H_

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Copies `count` bytes from `src` to `dest`. Refused (22 or 34) when `dest` or
 * `src` is null, `destMax` is 0, `count > destMax` or the areas overlap; a
 * refusal with a usable `dest` zero-fills its `destMax` bytes. */
int memcpy_s(void* dest, size_t destMax, const void* src, size_t count);

/* Fills `count` bytes of `dest` with `c`. With `count > destMax` it fills
 * `destMax` bytes and returns 34; null `dest` or zero `destMax` gives 22. */
int memset_s(void* dest, size_t destMax, int c, size_t count);

/* Copies the text `src` with its terminator into `dest`. Refused, leaving
 * `dest[0]` zero, when `src` is null (22), when `src` is longer than `count`
 * characters (34), or when it does not fit with its terminator into `destMax`
 * bytes (34). Null `dest` or zero `destMax` gives 22. */
int strncpy_s(char* dest, size_t destMax, const char* src, size_t count);

/* Formats at most min(count, destMax - 1) characters into `dest` and
 * terminates. Returns the number of characters written, or -1 when the output
 * was cut short (the cut text stays, terminated) or an argument is unusable. */
int snprintf_s(char* dest, size_t destMax, size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif /* BOUNDED_MEM_H_ */
