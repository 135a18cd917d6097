// Free functions of the library: a URL check, the start of task threads,
// process limits and user switching, bounded string handling, UTF-8
// conversion, Base64, the stored password form, the token random source and
// the checks of the application's directories.
//
// The string helpers never write beyond the capacity they are given and
// always leave the target terminated when the capacity is not 0. They stand
// in namespace Tarnwick and don't replace the standard functions: inside the
// library, call the standard ones qualified (std::strlen).
#pragma once

#include <ace/Task.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Tarnwick {

// Resolves the host part of an http:// or https:// URL (port 80 is used for
// the lookup, a port in the URL is not looked at). 0 when it resolves, -1 with
// a logged message otherwise; a null url gives -1 with errno EINVAL.
int checkURL(const wchar_t* url);

// Starts `count` threads of `task` with `stack_size` bytes of stack each,
// joinable or detached. Returns the result of the task's activate, or -1
// (null task; errno EINVAL for a negative count, ENOMEM when the stack size
// table can't be allocated).
int startThread(ACE_Task<ACE_MT_SYNCH>* task, int count, size_t stack_size, bool joinable);

// Display name of a command number (0 to 21). The number is not checked.
const wchar_t* translate_command(int command);

// The number of further file descriptors the process may open before it
// reaches its soft RLIMIT_NOFILE, or -1 with errno. `wanted` > 0 first tries
// to raise the limit so that that many are available.
int available_handles(int wanted);

// Switches the process to the group and user ids of the user `name` (and that
// user's supplementary groups). 0, or -1 with errno (ENOENT for an unknown user).
int become_user(const wchar_t* name);

// Raises the soft RLIMIT_NOFILE towards `limit`, within the hard limit. A soft
// limit already at or above `limit` is left alone. 0, or -1 with errno
// (EINVAL for a negative limit).
int set_fd_limit(int limit);

// Copies `source` into `target` (capacity `size` characters), truncating.
// Returns the length of `source`; a result >= size means it was truncated.
size_t strlcpy(char* target, const char* source, size_t size);
size_t strlcpy(wchar_t* target, const wchar_t* source, size_t size);
// As strlcpy with at most `count` characters taken from `source`. Returns the
// number of characters it wanted to copy (min(length, count)).
size_t strlncpy(char* target, const char* source, size_t size, size_t count);
size_t strlncpy(wchar_t* target, const wchar_t* source, size_t size, size_t count);
// Copies `source` whole into `target` of capacity `size`. Returns `target`,
// or null when it does not fit (the target then holds the empty string).
char* strcpy(char* target, const char* source, size_t size);
wchar_t* strcpy(wchar_t* target, const wchar_t* source, size_t size);
// Copies at most `count` characters of `source`. Returns `target`, or null
// when they do not fit (the target then holds the empty string).
char* strncpy(char* target, const char* source, size_t size, size_t count);
// Length of `text`, looking at no more than `limit` characters; 0 for null.
size_t strlen(const char* text, size_t limit);
size_t strlen(const wchar_t* text, size_t limit);
// Appends `source` to the terminated text in `target` of capacity `size`.
// Returns `target`, or null when the whole does not fit (target unchanged).
char* strcat(char* target, const char* source, size_t size);
wchar_t* strcat(wchar_t* target, const wchar_t* source, size_t size);
// Appends at most `count` characters of `source`; null when they don't fit.
char* strncat(char* target, const char* source, size_t size, size_t count);
wchar_t* strncat(wchar_t* target, const wchar_t* source, size_t size, size_t count);

// Strict conversions between wide text (UTF-32) and UTF-8. Invalid UTF-8
// (overlong forms, truncated sequences, surrogates, code points above
// U+10FFFF) and wide text holding surrogates or values above U+10FFFF fail.
//
// New UTF-8 text, released with utf8free; null on failure (errno EILSEQ or
// ENOMEM, EINVAL for null).
char* wcstoutf8_malloced(const wchar_t* source);
// New wide text, released with wcsfree; null on failure.
wchar_t* utf8towcs_malloced(const char* source);
void wcsfree(wchar_t* text);
void utf8free(char* text);
// The same into strings: false (errno EINVAL for null, EILSEQ for text that
// doesn't convert, ENOMEM) with `out` unchanged.
bool wcstoutf8(const wchar_t* source, std::string& out);
bool utf8towcs(const char* source, std::wstring& out);
// Convert into a caller's buffer of `size` bytes (characters); non-zero on
// success, 0 on failure or when the result with its terminator doesn't fit.
int wcstoutf8_buf(char* target, const wchar_t* source, size_t size);
int utf8towcs_buf(wchar_t* target, const char* source, size_t size);
// True when the first `size` bytes of `text` (or up to its terminator, which
// ever comes first) are valid UTF-8.
bool isValidUTF8(const char* text, size_t size);

// Base64 through OpenSSL. Sizes above 0xFFFFFFFF are clamped to that value.
// Encode writes the terminated text and returns its length; decode returns the
// number of bytes written. -1 on bad input or when the target is too small.
int Base64Encode(const char* data, size_t size, char* target, size_t target_size);
int Base64Decode(const char* text, char* target, size_t target_size);

// The form in which configuration files store a password. This is
// obfuscation, not encryption: it keeps a password from being read at a
// glance, nothing more. The stored text starts with "{twp}". Encode returns
// the length of the terminated stored text; decode returns the length of the
// password and rejects (-1) any text that is not in the stored form.
int EncodePassword(const char* text, char* target, size_t target_size);
int DecodePassword(const char* text, char* target, size_t target_size);

// A 32-bit random value. The source is seeded once per process from the
// operating system; it is safe to call from any thread.
uint32_t Random();

// ---------------------------------------------------------------------------
// Application paths: checks of the directories that the configuration names.

// 0 when the setting `key` has a value that names an existing directory.
// Otherwise -1 after logging
// "Configuration setting '<key>' not set. Please check your configuration"
// for a setting without value, or
// "Path '<value>' does not exist or is not a directory." for any other.
// A null key gives -1 with errno EINVAL and no message.
int check_path(const wchar_t* key);

// check_path of "log", "var", "pid", "rtdir" and "temp", in this order;
// -1 at the first that fails, the later ones are not looked at. 0 otherwise.
int validate_all_application_paths();

// Walks the null-terminated list of setting names (a null list is empty).
// A setting that check_path refuses (its message is logged all the same) and
// that has a value gets its directory made with Path::MkTree and the mode
// 0700, after the message "Creating directory <value>."; a setting without
// value is passed over. -1 when MkTree fails; otherwise 0.
int createPathsFromConfig(const wchar_t** keys);

}  // namespace Tarnwick
