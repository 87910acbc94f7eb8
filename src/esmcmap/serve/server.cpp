// Requests are answered by a fixed number of threads, of which streams may take most but not all. Who is slow
// is dropped.
//
// A page of another origin must not read the map: there are no CORS headers, and while the server listens on
// loopback only, a request must name it by an address of the machine itself, so that a foreign name which is
// made to point here gets nothing.
#include "esmcmap/serve/server.h"

#include <atomic>
#include <charconv>
#include <thread>

#include "esmcmap/serve/bounded_http.h"
#include "esmcmap/serve/page_files.h"

namespace esmcmap {

namespace {

using httplib::Request;
using httplib::Response;

constexpr const char* POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
    "base-uri 'none'; "
    "form-action 'none'; frame-ancestors 'none'";
constexpr unsigned OTHER_THREADS = 16;

// 127.0.0.1 and its like by their digits: a name may begin with them.
bool is_loopback(const std::string& host) {
    return host == "localhost" || host == "::1" ||
           (host.rfind("127.", 0) == 0 && host.find_first_not_of("0123456789.") == host.npos);
}

// "host:8466", "[::1]:8466", without the port.
std::string host_of(const std::string& header) {
    if (!header.empty() && header[0] == '[') return header.substr(1, header.find(']') - 1);
    return header.substr(0, header.find(':'));
}

void answer_json(Response& response, const std::string& text) {
    response.set_content(text, "application/json");
}

void refuse(Response& response, int status, const char* words) {
    response.status = status;
    response.set_content(std::string(words) + "\n", "text/plain");
}

}  // namespace

struct server::inside {
    inside(const records& of, esmcmap::metrics* told) : shown(of), metrics(told) {}

    const records& shown;
    esmcmap::metrics* metrics;
    bounded_server http{MOST_STREAMS + OTHER_THREADS};
    std::thread thread;
    serve_address at;
    std::atomic<unsigned> streams = 0;

    void limit() {
        http.set_payload_max_length(MOST_REQUEST);
        http.set_tcp_nodelay(true);
        http.set_default_headers({{"Content-Security-Policy", POLICY},
                                  {"X-Content-Type-Options", "nosniff"},
                                  {"Referrer-Policy", "no-referrer"},
                                  {"Cache-Control", "no-store"}});
    }

    httplib::Server::HandlerResponse before(const Request& request, Response& response) {
        if (is_loopback(at.host) && !is_loopback(host_of(request.get_header_value("Host")))) {
            refuse(response, 403, "This map is asked for by another name than it has here.");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (request.method != "GET" && request.method != "HEAD") {
            response.set_header("Allow", "GET, HEAD");
            refuse(response, 405, "The map can be looked at, not changed.");
            return httplib::Server::HandlerResponse::Handled;
        }
        // Everything is sent whole: a thousand ranges of a large state would be a thousand states. The
        // request is a variable of the library's, which has read the ranges already.
        const_cast<Request&>(request).ranges.clear();
        return httplib::Server::HandlerResponse::Unhandled;
    }

    void state(const Request& request, Response& response) {
        std::shared_ptr<const picture> wanted = shown.now();
        if (request.has_param("seq")) {
            const std::string text = request.get_param_value("seq");
            std::uint64_t seq = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seq);
            if (error != std::errc() || end != text.data() + text.size())
                return refuse(response, 400, "seq is no number");
            wanted = shown.recorded(seq);
            if (!wanted) return refuse(response, 404, "That state is not kept (any more).");
        }
        if (!wanted) return refuse(response, 503, "No state yet.");
        answer_json(response, whole_json(*wanted));
    }

    void events(Response& response) {
        if (++streams > MOST_STREAMS) {
            --streams;
            return refuse(response, 503, "Too many viewers.");
        }
        const auto place = std::make_shared<stream_place>();
        response.set_header("X-Accel-Buffering", "no");
        response.set_chunked_content_provider(
            "text/event-stream",
            [this, place](std::size_t, httplib::DataSink& sink) {
                std::vector<message> messages;
                const bool more = shown.next_messages(*place, messages, std::chrono::milliseconds(1000));
                for (const message& one : messages)
                    if (!sink.write(one->data(), one->size())) return false;
                if (!more) sink.done();
                return sink.is_writable();
            },
            [this](bool) { --streams; });
    }

    // Version 1.0 knows no chunks: there the end of the connection is that of the text.
    void told(const Request& request, Response& response) {
        constexpr const char* TYPE = "application/openmetrics-text; version=1.0.0; charset=utf-8";
        const std::shared_ptr<metrics_pieces> of = metrics->pieces();
        const auto write = [this, of](std::size_t, httplib::DataSink& sink) {
            const std::string piece = metrics->next(*of);
            if (!piece.empty() && !sink.write(piece.data(), piece.size())) return false;
            if (of->over()) sink.done();
            return true;
        };
        if (request.version == "HTTP/1.0")
            response.set_content_provider(TYPE, write);
        else
            response.set_chunked_content_provider(TYPE, write);
    }

    void routes() {
        http.set_pre_routing_handler(
            [this](const Request& request, Response& response) { return before(request, response); });
        for (const page_file& file : page_files())
            http.Get(std::string(file.path == "/" ? "/" : file.path),
                     [&file](const Request&, Response& response) {
                         response.set_content(file.content.data(), file.content.size(), file.type);
                     });
        http.Get("/state", [this](const Request& request, Response& response) { state(request, response); });
        http.Get("/history",
                 [this](const Request&, Response& response) { answer_json(response, shown.history_json()); });
        http.Get("/changes",
                 [this](const Request&, Response& response) { answer_json(response, shown.changes_json()); });
        http.Get("/events", [this](const Request&, Response& response) { events(response); });
        if (metrics)
            http.Get("/metrics",
                     [this](const Request& request, Response& response) { told(request, response); });
    }
};

bool read_serve_address(const std::string& text, serve_address& read) {
    serve_address made;
    std::string rest = text;
    if (!rest.empty() && rest[0] == '[') {
        const std::size_t end = rest.find(']');
        if (end == rest.npos) return false;
        made.host = rest.substr(1, end - 1);
        rest = rest.substr(end + 1);
        if (!rest.empty() && rest[0] != ':') return false;
    } else {
        const std::size_t colon = rest.rfind(':');
        const std::string host = rest.substr(0, colon);
        if (host.find(':') != host.npos) return false;  // an address of version 6 wants its brackets
        if (!host.empty()) made.host = host;
        rest = colon == rest.npos ? "" : rest.substr(colon);
        if (host.empty() && rest.size() < 2) return false;
    }
    if (rest == ":") return false;
    if (!rest.empty()) {
        const char *first = rest.data() + 1, *last = rest.data() + rest.size();
        if (std::from_chars(first, last, made.port).ptr != last || made.port < 0 || made.port > 65535)
            return false;
    }
    read = made;
    return true;
}

server::server(const records& shown, metrics* told) : in(std::make_unique<inside>(shown, told)) {
    in->limit();
    in->routes();
}

server::~server() {
    stop();
}

bool server::bind(const serve_address& at) {
    in->at = at;
    if (at.port == 0) in->at.port = in->http.bind_to_any_port(at.host.c_str());
    const bool bound = at.port ? in->http.bind_to_port(at.host.c_str(), at.port) : in->at.port > 0;
    if (bound) in->http.lengthen_queue();
    return bound;
}

std::string server::url() const {
    const bool version_6 = in->at.host.find(':') != std::string::npos;
    return "http://" + (version_6 ? "[" + in->at.host + "]" : in->at.host) + ":" +
           std::to_string(in->at.port) + "/";
}

void server::start() {
    in->thread = std::thread([this] { in->http.listen_after_bind(); });
}

void server::stop() {
    in->http.stop();
    if (in->thread.joinable()) in->thread.join();
}

}  // namespace esmcmap
