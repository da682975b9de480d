#pragma once
// The one number formatter for writers. Every function appends exactly the bytes
// printf gives in the C locale ("%f", "%.4f", "%d", "%u", "%g", "%e"; -0.0 prints
// "-0.000000", infinities "inf"/"-inf", NaNs "nan"/"-nan" as glibc prints them),
// without consulting the locale and without printf's per-call cost: numbers go
// through std::to_chars, whose floating-point output is defined as printf's.
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string>

namespace numfmt {

// "%.<precision>f" (precision 6 is "%f").
void AppendFixed(std::string& out, double v, int precision = 6);
// "%.<precision>e".
void AppendExp(std::string& out, double v, int precision = 6);
// "%.<precision>g".
void AppendGeneral(std::string& out, double v, int precision = 6);
// "%d" / "%lld".
void AppendInt(std::string& out, long long v);
// "%u" / "%llu".
void AppendUInt(std::string& out, unsigned long long v);

// Buffer forms: write at most `cap` bytes (no terminator) and return the length
// printf would produce; when that exceeds `cap` the buffer holds a truncated copy.
size_t FormatFixed(char* buf, size_t cap, double v, int precision = 6);
size_t FormatInt(char* buf, size_t cap, long long v);

// printf in the C locale, appended to `out`. Flags - + space 0, widths and
// precisions (also '*') and the conversions d i u x X o c s f F e E g G % take the
// fast path; anything else (the '#' flag, %a, %p, %n) goes to vsnprintf under the
// C locale. "%ls" takes a wide string and writes it as UTF-8.
void AppendFormat(std::string& out, const char* fmt, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;
void AppendFormatV(std::string& out, const char* fmt, va_list ap);

} // namespace numfmt
