// The halves of a session that session.cpp puts together: what the client's octets mean in each stage. A step
// takes what it can use from `in` and runs at most one line.
#pragma once

#include "suite/terminal/session.h"

// Batch.
bool session_batch_ready(const session* s);  // a whole request is there, or something to pass over
void session_batch_step(session* s);
std::size_t session_batch_input_limit(const session* s);
void session_batch_output(session* s, std::string_view text);

// Interactive: password, prompt, paging.
bool session_interactive_ready(const session* s);
void session_interactive_step(session* s);
void session_interactive_start(session* s);
std::size_t session_page_length(const session* s);  // 0: no pages
// A part of a listing has been taken, and the next one waits for no key.
bool session_listing_goes_on(const session* s);
void session_pager_finish(session* s);  // lets all that is held back go

// TCP: a line typed at "Password: " lets the session in, or is answered later: asks again, or ends it after
// the third wrong one.
void tcp_password_line(session* s, std::string_view line);

// Runs one line as the session's own. When s->more is set behind it, the same one is to be run again.
cli_result session_run_line(session* s, std::string_view line);

// A command that left its session busy has come to its end.
void session_batch_finish(session* s, bool good);
void session_interactive_finish(session* s, std::size_t output_start);
