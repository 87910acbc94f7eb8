// `nsmd --status`: asks the nsmd that serves this host and prints its answer.
#pragma once

// The exit status: 0, or 1 with a line on standard error when nobody answers.
int status_print(const char* socket_path);
