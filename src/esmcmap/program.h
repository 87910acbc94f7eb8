// What the ways of running the program share: how it ends, and what it says.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "esmcmap/ask/switch_file.h"
#include "esmcmap/options.h"

namespace esmcmap {

enum exit_status : int { WELL = 0, LOOP_OR_ISLAND = 1, NOTHING_ASKED = 2, SILENCE = 3 };

int complain(const std::string& words);  // on standard error; NOTHING_ASKED

// From now on the signals that end the program wait for an `ending`; also in all threads that are made later.
void hold_signals();

// While it lives, the first of these signals calls `stop`, once, in a thread of its own.
class ending {
  public:
    explicit ending(std::function<void()> stop);
    ~ending();
    ending(const ending&) = delete;
    ending& operator=(const ending&) = delete;

  private:
    std::thread thread;
};

// Each runs until its work is done, or a signal ends it, and returns the exit status.
int show_once(const switch_file& file, const options& how);
int show_again(const switch_file& file, const options& how);
int serve(const switch_file& file, const options& how);
int replay(const options& how);

}  // namespace esmcmap
