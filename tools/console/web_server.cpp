#include "console/web_server.h"

#include "console/report.h"
#include "console/thread_name.h"

#include <arpa/inet.h>
#include <httplib.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace tessel::console {

namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

constexpr std::size_t request_bytes_max = 16 * 1024;  // of everything, the body included
constexpr std::chrono::seconds request_time_max{5};
constexpr std::chrono::seconds reply_time_max{10};        // for one write of a plain reply
constexpr std::chrono::milliseconds step_time_max{1500};  // for one write of a stream
constexpr std::chrono::milliseconds step_interval{250};
constexpr std::chrono::seconds linger_time_max{1};
constexpr std::size_t linger_bytes_max = 1 << 20;
constexpr std::chrono::seconds farewell_time_max{5};
constexpr std::chrono::milliseconds stop_check_interval{200};
constexpr int send_buffer_bytes = 128 * 1024;  // what a slow client may leave unread
constexpr int backlog = 128;
constexpr int accept_wait_ms = 200;

SteadyTime now() {
    return std::chrono::steady_clock::now();
}

// Waits for the socket until `deadline`. False when the time is over.
bool wait_for(int fd, short events, SteadyTime deadline) {
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - now()).count();
        pollfd entry{fd, events, 0};
        const int ready = poll(&entry, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) {
            return true;
        }
        if (ready == 0 && left <= 0) {
            return false;
        }
    }
}

// One request and its reply: a socket, or bytes in memory. The library reads and writes through it.
class Connection final : public httplib::Stream {
public:
    int fd = -1;               // -1: in memory
    std::string input;         // read ahead, or the whole request
    std::size_t taken = 0;     // of the input
    std::size_t received = 0;  // bytes altogether
    std::string output;        // in memory
    std::string local_address = "127.0.0.1";
    SteadyTime request_deadline = now() + request_time_max;
    std::chrono::milliseconds write_time_max = reply_time_max;
    const WebServer* server = nullptr;  // null: in memory

    bool is_readable() const override {
        return true;
    }
    bool is_writable() const override {
        return true;
    }
    ssize_t read(char* bytes, std::size_t size) override;
    ssize_t write(const char* bytes, std::size_t size) override;
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override {
        return fd;
    }

private:
    bool wait_for_input() const;
    bool fill();
};

// False when the time is over or the server is about to end.
bool Connection::wait_for_input() const {
    while (!wait_for(fd, POLLIN, std::min(request_deadline, now() + stop_check_interval))) {
        if (server->stopping || now() >= request_deadline) {
            return false;
        }
    }
    return true;
}

// Reads ahead. False at the end, after the limit and when the time is over.
bool Connection::fill() {
    if (fd < 0 || received >= request_bytes_max || !wait_for_input()) {
        return false;
    }
    char bytes[4096];
    const std::size_t room = std::min(sizeof bytes, request_bytes_max - received);
    const ssize_t count = recv(fd, bytes, room, MSG_DONTWAIT);
    if (count <= 0) {
        return count < 0 && (errno == EAGAIN || errno == EINTR) && now() < request_deadline && fill();
    }
    received += static_cast<std::size_t>(count);
    input.assign(bytes, static_cast<std::size_t>(count));
    taken = 0;
    return true;
}

ssize_t Connection::read(char* bytes, std::size_t size) {
    if (taken == input.size() && !fill()) {
        return -1;
    }
    const std::size_t count = std::min(size, input.size() - taken);
    std::memcpy(bytes, input.data() + taken, count);
    taken += count;
    return static_cast<ssize_t>(count);
}

// All or nothing: a client that does not read in time is given up.
ssize_t Connection::write(const char* bytes, std::size_t size) {
    if (fd < 0) {
        output.append(bytes, size);
        return static_cast<ssize_t>(size);
    }
    const SteadyTime deadline = now() + write_time_max;
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = send(fd, bytes + done, size - done, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count >= 0) {
            done += static_cast<std::size_t>(count);
        } else if ((errno != EAGAIN && errno != EINTR) || !wait_for(fd, POLLOUT, deadline)) {
            return -1;
        }
    }
    return static_cast<ssize_t>(size);
}

// Whether the client is still there. It has nothing more to say, so what can be read is the end of its side.
bool is_gone(int fd) {
    char byte = 0;
    const ssize_t count = recv(fd, &byte, 1, MSG_DONTWAIT | MSG_PEEK);
    return count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR);
}

std::optional<std::string> header_of(const httplib::Request& from, const char* name) {
    return from.has_header(name) ? std::optional<std::string>(from.get_header_value(name)) : std::nullopt;
}

Request make_request(const httplib::Request& from, const Connection& connection) {
    Request request;
    request.method = from.method;
    request.path = from.path;
    request.query.assign(from.params.begin(), from.params.end());
    request.host = from.get_header_value_count("Host") == 1 ? header_of(from, "Host") : std::nullopt;
    request.origin = header_of(from, "Origin");
    request.authorization = from.get_header_value("Authorization");
    request.cookies = from.get_header_value("Cookie");
    request.local_address = connection.local_address;
    return request;
}

// Waits for the next step of a stream. False when everything ends or the client has gone.
bool wait_for_step(const WebServer* server, Board& board, const Connection& connection, SteadyTime at) {
    if (server == nullptr) {
        return false;
    }
    std::unique_lock<std::mutex> lock(board.mutex);
    board.changed.wait_until(lock, at, [&board] { return board.stopping; });
    return !board.stopping && !is_gone(connection.fd);
}

// The library of HTTP, which reads one request and writes one reply; everything about sockets is done here.
class HttpLibrary final : public httplib::Server {
public:
    HttpLibrary(Site& the_site, Connection& the_connection, const WebServer* the_server)
        : site(the_site), connection(the_connection), server(the_server) {
        svr_sock_ = 0;  // it must look open: the library ends a stream otherwise
        set_pre_routing_handler([this](const httplib::Request& from, httplib::Response& to) {
            return route(from, to) ? HandlerResponse::Handled : HandlerResponse::Unhandled;
        });
        Post("/api/command", [this](const httplib::Request& from, httplib::Response& to,
                                    const httplib::ContentReader& read) { take_body(from, to, read); });
        set_exception_handler([](const httplib::Request&, httplib::Response& to, const std::exception_ptr&) {
            to.status = 500;
            to.set_content("{\"error\":\"the console failed\"}", "application/json");
        });
        httplib::Headers headers;
        for (const auto& [name, value] : common_headers()) {
            headers.emplace(name, value);
        }
        set_default_headers(std::move(headers));
    }

    ~HttpLibrary() override {
        svr_sock_ = INVALID_SOCKET;
    }

    void serve() {
        bool closed = false;
        process_request(connection, true, closed, [](httplib::Request& request) {
            // Neither parts of a reply nor compressed ones.
            request.ranges.clear();
            request.headers.erase("Accept-Encoding");
        });
    }

private:
    Site& site;
    Connection& connection;
    const WebServer* server;

    // True when there is a reply; false for a command whose body has to be read first.
    bool route(const httplib::Request& from, httplib::Response& to) {
        const Request request = make_request(from, connection);
        if (const std::optional<Reply> refusal = refuse(site, request)) {
            fill(to, *refusal);
            return true;
        }
        if (request.method != "POST") {
            fill(to, answer(site, request));
            return true;
        }
        const std::string length = from.get_header_value("Content-Length");
        if (from.is_multipart_form_data()) {
            fill(to, error_reply(400, "the body is one JSON object"));
            return true;
        }
        if (length.find_first_not_of("0123456789") != std::string::npos) {
            fill(to, error_reply(400, "the Content-Length is no number"));
            return true;
        }
        if (length.size() > 4 || std::strtoul(length.c_str(), nullptr, 10) > body_bytes_max) {
            fill(to, error_reply(413, "a body has at most 4096 bytes"));
            return true;
        }
        if (length.empty() && !from.has_header("Transfer-Encoding")) {
            fill(to, error_reply(400, "there is no body: send {\"command\": \"halt AAPL\"}"));
            return true;
        }
        return false;
    }

    void take_body(const httplib::Request& from, httplib::Response& to, const httplib::ContentReader& read) {
        Request request = make_request(from, connection);
        const bool whole = read([&request](const char* bytes, std::size_t size) {
            request.body.append(bytes, size);
            return request.body.size() <= body_bytes_max;
        });
        if (request.body.size() > body_bytes_max) {
            fill(to, error_reply(413, "a body has at most 4096 bytes"));
        } else if (!whole) {
            fill(to, error_reply(400, "the body did not come as announced"));
        } else {
            fill(to, answer(site, request));
        }
    }

    void fill(httplib::Response& to, const Reply& reply) {
        to.status = reply.status;
        for (const auto& [name, value] : reply.headers) {
            to.set_header(name, value);
        }
        if (!reply.stream) {
            to.set_content(reply.body, reply.content_type);
            return;
        }
        connection.write_time_max = step_time_max;
        to.set_chunked_content_provider(
            reply.content_type,
            [this, plan = *reply.stream, next = now()](std::size_t, httplib::DataSink& sink) mutable {
                const std::string text = stream_text(site, plan);
                if (!sink.write(text.data(), text.size())) {
                    return false;
                }
                next = std::max(next + step_interval, now());
                if (!wait_for_step(server, *site.board, connection, next)) {
                    sink.done();
                }
                return true;
            },
            [this](bool) { site.streams.fetch_sub(1); });
    }
};

// Reads what the client still sends, a little: closing with unread bytes would take the reply away from it.
void linger(int fd) {
    shutdown(fd, SHUT_WR);
    const SteadyTime deadline = now() + linger_time_max;
    char bytes[4096];
    std::size_t sum = 0;
    while (sum < linger_bytes_max && wait_for(fd, POLLIN, deadline)) {
        const ssize_t count = recv(fd, bytes, sizeof bytes, MSG_DONTWAIT);
        if (count <= 0) {
            return;
        }
        sum += static_cast<std::size_t>(count);
    }
}

void serve_connection(WebServer& server, int fd) {
    name_thread("connection");
    {
        Connection connection;
        connection.fd = fd;
        connection.server = &server;
        sockaddr_in local{};
        socklen_t length = sizeof local;
        char text[INET_ADDRSTRLEN] = "";
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
            inet_ntop(AF_INET, &local.sin_addr, text, sizeof text) != nullptr) {
            connection.local_address = text;
        }
        try {
            HttpLibrary(*server.site, connection, &server).serve();
        } catch (const std::exception& failure) {  // no memory
            report(failure.what());
        }
    }
    if (!server.stopping) {
        linger(fd);
    }
    close(fd);
    server.connections.fetch_sub(1);
}

void turn_away(int fd) {
    constexpr std::string_view reply =
        "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Length: 0\r\nRetry-After: "
        "1\r\n\r\n";
    const ssize_t sent = send(fd, reply.data(), reply.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    static_cast<void>(sent);
    close(fd);
}

void accept_one(WebServer& server) {
    const int fd = accept4(server.fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes);
    if (server.connections.fetch_add(1) >= connections_max) {
        server.connections.fetch_sub(1);
        turn_away(fd);
        return;
    }
    try {
        std::thread(serve_connection, std::ref(server), fd).detach();
    } catch (const std::system_error&) {  // no thread to be had
        server.connections.fetch_sub(1);
        turn_away(fd);
    }
}

bool resolve(const std::string& host, std::uint16_t port, sockaddr_in& address, std::string& error) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int status = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (status != 0) {
        error = "'" + host + "': " + gai_strerror(status);
        return false;
    }
    std::memcpy(&address, found->ai_addr, sizeof address);
    freeaddrinfo(found);
    address.sin_port = htons(port);
    return true;
}

}  // namespace

bool open_web_server(WebServer& server, Site& site, const std::string& host, std::uint16_t port,
                     std::string& error) {
    server.site = &site;
    sockaddr_in address{};
    if (!resolve(host, port, address, error)) {
        return false;
    }
    server.fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    setsockopt(server.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    socklen_t length = sizeof address;
    if (server.fd < 0 || bind(server.fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(server.fd, backlog) != 0 ||
        getsockname(server.fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        error = host + ":" + std::to_string(port) + ": " + std::strerror(errno);
        if (server.fd >= 0) {
            close(server.fd);
            server.fd = -1;
        }
        return false;
    }
    server.port = ntohs(address.sin_port);
    return true;
}

void run_web_server(WebServer& server) {
    while (!server.stopping) {
        pollfd entry{server.fd, POLLIN, 0};
        if (poll(&entry, 1, accept_wait_ms) > 0) {
            accept_one(server);
        }
    }
    close(server.fd);
    server.fd = -1;
    // Streams end by themselves; a client in the middle of a request is not waited for longer than this.
    const SteadyTime deadline = now() + farewell_time_max;
    while (server.connections != 0 && now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void stop_web_server(WebServer& server) {
    server.stopping = true;
}

std::string answer_bytes(Site& site, std::string_view request) {
    Connection connection;
    connection.input = request;
    HttpLibrary(site, connection, nullptr).serve();
    return std::move(connection.output);
}

}  // namespace tessel::console
