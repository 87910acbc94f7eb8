// The wire between esmcsh and the daemon: the local terminal socket.
//
// The client's first line says what it is:
//
//   batch\n                         lines of a script; framed in both directions from here on
//   complete\n                      as batch, but a request that ends with a TAB is not run
//   interactive ROWS COLS TERM\n    a terminal in raw mode; a pipe of octets from here on
//
// Batch. A request is a 4-octet big-endian length and that many octets: one line. The answer to each request
// is any number of output frames and one status frame; a frame is one octet of type, a 4-octet big-endian
// length, and the body:
//
//   'o'   octets that the line printed, unchanged
//   's'   one octet: 0 the line succeeded, 1 it did not, 2 it succeeded and ended the session
//
// The request "!?" asks where the line before it, which was refused for how it is written, goes wrong: the
// output is the line, a mark under the word, and what could stand there, and nothing when there is nothing to
// say. To a daemon that does not know it, it is a comment.
//
// Requests may be sent ahead; they are run in order. A request longer than 64 KiB is answered with "% Line
// too long" and status 1. When the client shuts its sending side down, the requests that came whole are
// answered before the session is closed.
//
// Complete. A request that ends with a TAB is answered with the words that may stand where the TAB is, one a
// line; the word that it stands behind is the beginning of each.
//
// Interactive. Keys go up as they are typed, output comes down with CR LF. An octet 255 is sent twice; 255,
// 250, 31, columns, rows (two octets each, big-endian, 255 doubled), 255, 240 tells a new window size, as in
// telnet.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr const char* TERMINAL_LOCAL_SOCKET = "/run/esmcd.vty";

constexpr std::size_t SESSION_LINE_MAX = 64 * 1024;
constexpr std::string_view BATCH_EXPLAIN = "!?";
constexpr std::uint8_t BATCH_OUTPUT = 'o', BATCH_STATUS = 's';
constexpr std::size_t BATCH_FRAME_HEADER = 5, BATCH_REQUEST_HEADER = 4;
enum batch_status : std::uint8_t { BATCH_OK = 0, BATCH_FAILED = 1, BATCH_ENDED = 2 };
