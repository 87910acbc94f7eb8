// What the ways of running the program share: how it ends, and what it says.
#pragma once

#include <signal.h>

#include <functional>
#include <string>
#include <thread>

#include "esmcmap/ask/switch_file.h"
#include "esmcmap/options.h"

namespace esmcmap {

enum exit_status : int { WELL = 0, LOOP_OR_ISLAND = 1, NOTHING_ASKED = 2, SILENCE = 3 };

int complain(const std::string& words);  // on standard error; NOTHING_ASKED

// Signals that end the program are taken by one thread, which then tells the others. To be made before any
// other thread, which must not take them.
class ending {
  public:
    ending();
    ~ending();
    ending(const ending&) = delete;
    ending& operator=(const ending&) = delete;
    void then(std::function<void()> stop);  // what is called, once, in a thread of its own

  private:
    sigset_t wanted = {};
    std::thread thread;
};

// Each runs until its work is done, or a signal ends it, and returns the exit status.
int show_once(const switch_file& file, const options& how);
int show_again(const switch_file& file, const options& how);
int serve(const switch_file& file, const options& how);
int replay(const options& how);

}  // namespace esmcmap
