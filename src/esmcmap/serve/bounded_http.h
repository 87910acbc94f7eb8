// An HTTP server of which nobody can have too much: a request's head has a size and a time in which it must
// come, a connection that says nothing is closed, and who comes last is answered first, so that connections
// that only hold a place keep nobody out.
#pragma once

#include <httplib.h>

namespace esmcmap {

constexpr std::size_t MOST_REQUEST = 16384;  // octets, head and body
constexpr int REQUEST_MS = 2000;             // in which it must be there
constexpr int IDLE_MS = 1000;                // that a connection may wait for its next request
constexpr int WRITE_MS = 5000;               // in which a viewer must take something of what is sent to it

class bounded_server : public httplib::Server {
  public:
    explicit bounded_server(unsigned threads);
    // Once bound: the library has a queue of five, and who finds it full comes again after a second.
    void lengthen_queue();

  private:
    bool process_and_close_socket(socket_t socket) override;
};

}  // namespace esmcmap
