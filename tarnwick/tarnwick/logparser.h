// Extraction of log text: filtering lines by depth, keeping the end of a
// long log, limiting the size of a result with a marker in the gap, and
// escaping lines as store text.
//
// The depth of a line is told by its leading dots, by two rules:
// - the stream functions of LogParser and filter_file count every leading
//   '.', whatever follows;
// - tail_and_filter and tail_and_filter_file count 1, 2 or 3 leading dots
//   followed by a blank, and give 0 for any other line (so ".... x" and
//   ".x" are ordinary lines of depth 0).
// A line is kept when its depth is at most the level; a negative level keeps
// nothing. Lines end at "\n" (and, for the tail functions, at "\r" too).
#pragma once

#include <tarnwick/export.h>

#include <ace/os_include/os_fcntl.h>

#include <cstddef>
#include <cstdint>
#include <istream>
#include <ostream>
#include <sstream>
#include <string>

namespace Tarnwick {

// Stream functions; failures throw Exception (number 10, source
// "LogParser").
namespace LogParser {

// The line as store text (see path_encoder.h); zero bytes included.
TARNWICK_EXPORT std::string escapeLine(const std::string& line);
// Copies each line of `in` whose depth is at most `level` to `out`, with a
// "\n" behind it, until `in` fails.
TARNWICK_EXPORT void dotParseStream(std::istream& in, std::ostream& out, int level);
// Copies the escaped lines of the seekable `in` to `out`. When `in` is
// larger than `max_size`, its middle is left out and the text
// "\n\nOutput truncated here because it exceeds the size limit\n\n" stands
// in its place; the line at which the tail starts is dropped, as it is as a
// rule partial. Throws (severity 7) "input or output stream not ready" when
// a stream isn't good or `in` can't tell its size.
TARNWICK_EXPORT void truncateAndEscapeStream(std::istream& in, std::ostream& out, size_t max_size);
// Filters the file `input_path` by `level` into the file `temp_path`, then
// writes that to `out` truncated to `max_size` and escaped. Throws (severity
// 6) "Failed to open input file: <path>", "Failed to open temporary file for
// writing: <path>", "Failed to open temporary file for reading: <path>", or
// (severity 7) "Failed to open output stream". The temporary file stays; the
// caller removes it.
TARNWICK_EXPORT void parseLogFile(const std::string& input_path, const std::string& temp_path,
                                  std::ostream& out, size_t max_size, int level);

}  // namespace LogParser

// Writes each line of `input_path` whose depth is at most `level` to
// `output_path` (created or truncated), each with "\n". A file that can't be
// opened gives no line. 0, or -1 (errno EINVAL) when a path is null.
TARNWICK_EXPORT int filter_file(const char* input_path, const char* output_path, int level);

// Writes the lines of `path` to `out`, unescaped, keeping about `max_size`
// bytes: lines from the head while they fit in half of it, then, when the
// rest is at least half of it, the text
// "\n\nOutput truncated here because it was exceeding the size limit\n\n"
// and the lines of the last part of the file, the first (partial) one
// dropped. A line longer than the room is written whole. 0 (nothing written
// when the file can't be opened), or -1 (errno EINVAL) for a null `path`.
TARNWICK_EXPORT int smart_truncate(const char* path, std::stringstream& out, size_t max_size);

// Writes the last `max_lines` non-empty lines of `path` whose depth is at
// most `level` to the descriptor `out_handle`, in file order, each with
// "\n". The file is read backwards in blocks of 32768 bytes, so that the
// cost depends on the lines wanted, not on the size of the file. A piece of
// a line longer than a block is given as the line "Error: line too long".
// 0, also when a read or write failed on the way (what was gathered is
// written); -1 for a null or non-regular `path`, one that can't be opened,
// or a failed seek ("Can not position in file").
TARNWICK_EXPORT int tail_and_filter(const wchar_t* path, ACE_HANDLE out_handle, int level,
                                    int max_lines);
// The same for every line of the file, with blocks of `block_size` bytes, or
// of the file's size when that is smaller (-1 with errno ENOMEM when the
// block can't be allocated, EINVAL when `block_size` is below 1).
TARNWICK_EXPORT int tail_and_filter_file(const wchar_t* path, ACE_HANDLE out_handle,
                                         int64_t block_size, int level);

// Cuts `path` down to its last `keep_bytes` bytes, through the file
// "<path>.temp_shrinking" (made exclusively, so that a leftover one makes
// this fail) which then replaces it. The cut lands at a byte, so the first
// line is usually partial. 0, also when the file is no larger; -1 after
// logging what failed (a failed read or write leaves the temporary file).
TARNWICK_EXPORT int shrinkFileTail(const wchar_t* path, size_t keep_bytes);

}  // namespace Tarnwick
