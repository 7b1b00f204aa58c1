// text.cpp - wsprintfA with Windows' meaning.
//
// The format is parsed here and each conversion alone is formatted with
// snprintf, so that the C library never sees a size prefix whose meaning
// differs: on Windows `l` (and `h`) mean 32 bits, so %ld takes an int32_t
// and %lu a uint32_t.  Supported: %d %i %u %x %X %c %s %% with the flags
// - 0 # + and blank, a width, and a precision.  `*` widths are not Windows'
// and print as text.  An unknown conversion prints its letter, as Windows
// does; a NULL string prints "(null)".  The output is cut at 1024 characters
// plus the final NUL, so `buffer` needs 1025 bytes for the longest result.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "platform/win32.h"

namespace {

constexpr int MaxOutput = 1024;
constexpr int MaxField = MaxOutput + 1;  // a wider field or precision changes nothing once cut

// Reads a decimal number at *cursor, saturating at MaxField.
int ReadNumber(const char **cursor) {
    int value = 0;
    while (**cursor >= '0' && **cursor <= '9') {
        value = value * 10 + (**cursor - '0');
        if (value > MaxField) value = MaxField;
        ++*cursor;
    }
    return value;
}

struct Output {
    char *buffer;
    int length = 0;
    void Append(const char *text, size_t count) {
        size_t room = size_t(MaxOutput - length);
        if (count > room) count = room;
        std::memcpy(buffer + length, text, count);
        length += int(count);
    }
};

}  // namespace

int wsprintfA(char *buffer, const char *format, ...) {
    if (!buffer) return 0;
    Output out{buffer};
    if (!format) {
        buffer[0] = 0;
        return 0;
    }
    va_list args;
    va_start(args, format);
    const char *p = format;
    while (*p && out.length < MaxOutput) {
        const char *literal = p;
        while (*p && *p != '%') p++;
        out.Append(literal, size_t(p - literal));
        if (!*p) break;
        p++;  // past '%'
        // flags, width, precision, size prefix, type
        bool seen[5] = {};
        static constexpr char flagLetters[] = "-0#+ ";
        for (const char *f; *p && (f = std::strchr(flagLetters, *p)); p++) seen[f - flagLetters] = true;
        int width = ReadNumber(&p);
        int precision = -1;
        if (*p == '.') {
            p++;
            precision = ReadNumber(&p);
        }
        while (*p == 'l' || *p == 'h') p++;  // 32 bits either way
        char type = *p;
        if (!type) break;  // a format ending inside a conversion prints nothing more
        p++;
        // Only the flags that C defines for the type reach snprintf.
        const char *allowed = type == 'd' || type == 'i' ? "-0+ " : type == 'u' ? "-0" : type == 'x' || type == 'X' ? "-0#" : "-";
        char spec[32];
        int used = 0;
        spec[used++] = '%';
        for (int i = 0; i < 5; i++)
            if (seen[i] && std::strchr(allowed, flagLetters[i])) spec[used++] = flagLetters[i];
        if (width > 0) used += std::snprintf(spec + used, sizeof spec - size_t(used), "%d", width);
        if (precision >= 0 && type != 'c')
            used += std::snprintf(spec + used, sizeof spec - size_t(used), ".%d", precision);
        spec[used++] = type;
        spec[used] = 0;
        char piece[MaxOutput + 1];
        int made;
        switch (type) {
        case 'd':
        case 'i': made = std::snprintf(piece, sizeof piece, spec, int(va_arg(args, int32_t))); break;
        case 'u':
        case 'x':
        case 'X': made = std::snprintf(piece, sizeof piece, spec, unsigned(va_arg(args, uint32_t))); break;
        case 'c': made = std::snprintf(piece, sizeof piece, spec, va_arg(args, int)); break;
        case 's': {
            const char *text = va_arg(args, const char *);
            made = std::snprintf(piece, sizeof piece, spec, text ? text : "(null)");
            break;
        }
        case '%': made = std::snprintf(piece, sizeof piece, "%%"); break;
        default:
            piece[0] = type;
            made = 1;
            break;
        }
        if (made < 0) made = 0;
        if (made > MaxOutput) made = MaxOutput;
        out.Append(piece, size_t(made));
    }
    va_end(args);
    buffer[out.length] = 0;
    return out.length;
}
