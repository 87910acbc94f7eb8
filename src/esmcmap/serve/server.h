// The map over HTTP: the page, its states, and the stream of changes. Nothing that is asked changes anything;
// nothing outside the program's own pages can be asked for.
#pragma once

#include <memory>
#include <string>

#include "esmcmap/serve/metrics.h"
#include "esmcmap/serve/records.h"

namespace esmcmap {

constexpr int DEFAULT_PORT = 8466;
constexpr unsigned MOST_STREAMS = 32;

struct serve_address {
    std::string host = "127.0.0.1";
    int port = DEFAULT_PORT;  // 0: any that is free
};
// "ADDRESS:PORT", "ADDRESS", ":PORT", "[::1]:8466". False when it is none of these.
bool read_serve_address(const std::string& text, serve_address& read);

class server {
  public:
    // `told` is what /metrics tells, and outlives the server; null: there is no such path.
    server(const records& shown, metrics* told);
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    bool bind(const serve_address& at);  // errno says why not
    std::string url() const;             // once bound
    void start();                        // serves from threads of its own
    void stop();

  private:
    struct inside;
    std::unique_ptr<inside> in;
};

}  // namespace esmcmap
