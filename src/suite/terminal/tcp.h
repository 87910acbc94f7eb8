// The password half of the TCP terminal, called by the session that reads it.
#pragma once

#include <string_view>

struct session;

// A line typed at "Password: ": lets the session in, asks again, or ends it after the third wrong one.
void tcp_password_line(session* s, std::string_view line);
