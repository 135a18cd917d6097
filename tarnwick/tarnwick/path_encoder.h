// Escaping of text in the backup store.
//
// Store text escapes, as "%HH" with two upper-case hexadecimal digits, every
// byte that could be taken for structure or that isn't printable text: the
// separator '/', '%' itself, the control bytes 0x00 to 0x1F and 0x7F, and
// each byte that is not part of a valid UTF-8 sequence. Everything else,
// valid multi-byte UTF-8 included, stands as it is. Unescaping turns every
// "%HH" (either case of hex digit) back into its byte and leaves any other
// '%' as it stands, so that unescaping escaped text gives back every byte
// sequence exactly.
#pragma once

#include <tarnwick/export.h>

#include <sys/types.h>

#include <cstddef>
#include <ostream>
#include <string>

namespace Tarnwick {

// Escapes `length` bytes of `in` into `out`, a buffer of `size` bytes. The
// result is the length of the whole escaped text, without terminator, however
// much of it fit. When `size` is not 0, `out` receives as many whole escaped
// characters as fit before a terminator; the text is complete when the
// result is below `size`. With a null `out` and `size` 0 only the length is
// computed. -1 with errno EINVAL for a null `in` (with `length` not 0) or a
// null `out` with `size` not 0.
TARNWICK_EXPORT ssize_t storeEscape(const char* in, size_t length, char* out, size_t size);
// Unescapes `length` bytes of `in` into `out`, with the same size contract
// as storeEscape. The plain text may hold zero bytes (from "%00"): use the
// result as its length.
TARNWICK_EXPORT ssize_t storeUnescape(const char* in, size_t length, char* out, size_t size);

// The store's text encodings of path text.
class TARNWICK_EXPORT Path_Encoder {
public:
    // Zero-terminated narrow text, escaped or unescaped into `out` of `size`
    // bytes; the length of the whole result, or -1 with errno.
    static ssize_t EscapeA(const char* in, char* out, size_t size);
    static ssize_t UnescapeA(const char* in, char* out, size_t size);
    // The same for wide text, which is escaped in its UTF-8 form; `size` and
    // the result count wide characters, and a result that doesn't fit is cut
    // at `size` - 1 characters. Wide text that has no UTF-8 form, or
    // escaped text whose bytes aren't UTF-8, gives -1 with errno EILSEQ.
    static ssize_t Escape(const wchar_t* in, wchar_t* out, size_t size);
    static ssize_t Unescape(const wchar_t* in, wchar_t* out, size_t size);
    // Writes the unescaped form of `text` to `out`, every byte of it.
    static void UnEscapeToBuffer(std::ostream& out, const std::string& text);

    // The UTF-8 form of `path`, URL-encoded (every byte but A-Z, a-z, 0-9,
    // '-', '.', '_', '~' as "%HH") into `out`, which the caller sizes: three
    // times the UTF-8 length plus one is always enough. Returns `out`, or
    // null (errno EINVAL for null arguments, EILSEQ for text without a UTF-8
    // form, ENOMEM).
    static char* encode(const wchar_t* path, char* out);
    // The inverse: URL-decodes `text` and converts the UTF-8 to wide text in
    // `out`, sized by the caller (strlen(text) + 1 characters is enough).
    // Returns `out`, or null for a '%' without two hexadecimal digits, bytes
    // that aren't UTF-8, or null arguments.
    static wchar_t* decode(const char* text, wchar_t* out);

private:
    Path_Encoder();
};

}  // namespace Tarnwick
