// The map over HTTP: the page, its states, and the stream of changes. Nothing that is asked changes anything;
// nothing outside the program's own pages can be asked for.
#pragma once

#include <functional>
#include <memory>
#include <string>

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

// What it makes is shared by all who ask for it at once: the text of a large network has megabytes.
using metrics_source = std::function<std::shared_ptr<const std::string>()>;

class server {
  public:
    // `metrics` is asked for the text of /metrics, from any thread; null: there are none.
    server(const records& shown, metrics_source metrics);
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
