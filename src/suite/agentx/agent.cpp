// The session with the AgentX master: connects, opens, registers the modules one after another, serves, asks
// after a master that is silent, and begins again from the start whenever anything goes wrong.
//
//   down -> connecting -> opening -> registering -> serving, and from each of them back to down
//
// A connect proves nothing: the kernel takes connections for a master that hangs. Every step therefore has a
// timer, and so have each ping, each notification and output that does not move. One timer serves all of
// them; it may run early, and then looks at what is due next.
//
// What can go wrong: no master, one that hangs, refuses, leaves or sends what can't be read. Each ends the
// link; what a SET had begun is put back; the next try follows after a delay that grows to DELAY_MAX_MS,
// which keeps the way back after the master's return short. An outage is logged once. Input is held for one
// PDU of at most PDU_MAX octets, output to OUTPUT_MAX; with much output waiting no more input is taken.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "suite/agentx/record.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

namespace {

constexpr nanoseconds STEP_LIMIT = 3 * NS_PER_S;  // for an answer, a connection, output to move
constexpr nanoseconds IDLE_LIMIT = 15 * NS_PER_S;
constexpr std::uint32_t DELAY_FIRST_MS = 250, DELAY_MAX_MS = 2000;

constexpr std::size_t CHUNK = 16 * 1024;     // read at once
constexpr std::size_t PDU_MAX = 512 * 1024;  // a whole SNMP message of 64 KiB becomes less
constexpr std::size_t OUTPUT_MAX = 1024 * 1024;
constexpr int PDUS_A_TURN = 32;

agentx_link_open link_open = agentx_link_open_real;

void connect_now(snmp_agent* agent);
int on_readable(thread* event);
void take_input(snmp_agent* agent);

// Timers ------------------------------------------------------------------------------------------------

nanoseconds due_next(const snmp_agent* agent) {
    if (agent->phase != agentx_phase::serving) return agent->step_started + STEP_LIMIT;
    nanoseconds due = agent->unanswered ? agent->unanswered_since + STEP_LIMIT : agent->heard + IDLE_LIMIT;
    if (agent->out.length) due = std::min(due, agent->stalled_since + STEP_LIMIT);
    return due;
}

void send_ping(snmp_agent* agent) {
    agentx_writer w = agentx_begin(&agent->out, agentx_new_request(agent, AGENTX_PING));
    if (agentx_end(&w))
        agentx_request_sent(agent);
    else
        agentx_drop(agent, "no memory for a ping");
}

void arm_timer(snmp_agent* agent);

void time_is_up(snmp_agent* agent) {
    const nanoseconds now = thread_now(agent->ctx);
    if (agent->phase != agentx_phase::serving) {
        static constexpr const char* texts[] = {"", "the master does not take the connection",
                                                "no answer to Open", "no answer to Register"};
        return agentx_drop(agent, texts[static_cast<std::size_t>(agent->phase)]);
    }
    if (agent->unanswered && now >= agent->unanswered_since + STEP_LIMIT)
        return agentx_drop(agent, "the master does not answer");
    if (agent->out.length && now >= agent->stalled_since + STEP_LIMIT)
        return agentx_drop(agent, "the master takes no output");
    send_ping(agent);
}

int on_timer(thread* event) {
    auto* agent = static_cast<snmp_agent*>(event->arg);
    agent->timer = nullptr;
    if (agent->phase == agentx_phase::down)
        connect_now(agent);
    else if (thread_now(agent->ctx) >= due_next(agent))
        time_is_up(agent);
    else
        arm_timer(agent);
    return 0;
}

void set_timer(snmp_agent* agent, nanoseconds due) {
    const nanoseconds now = thread_now(agent->ctx);
    thread_cancel(agent->timer);
    const nanoseconds wait = due > now ? due - now : 0;
    agent->timer_due = due;
    agent->timer = thread_add_timer_msec(agent->ctx, on_timer, agent,
                                         static_cast<std::uint32_t>((wait + NS_PER_MS - 1) / NS_PER_MS));
}

// A timer that runs early is as good as one that runs on time, and need not be moved for each PDU.
void arm_timer(snmp_agent* agent) {
    if (agent->phase == agentx_phase::down) return;
    const nanoseconds due = due_next(agent);
    if (!agent->timer || agent->timer_due > due) set_timer(agent, due);
}

void wait_to_connect(snmp_agent* agent, std::uint32_t delay_ms) {
    set_timer(agent, thread_now(agent->ctx) + delay_ms * NS_PER_MS);
}

// The end of a link ---------------------------------------------------------------------------------------

void forget_link(snmp_agent* agent) {
    if (agent->fd >= 0) {
        thread_forget_fd(agent->ctx, agent->fd);  // cancels what is pending on it
        close(agent->fd);
    }
    agent->fd = -1;
    agent->read = agent->write = nullptr;
    thread_cancel(agent->timer);
    agent->timer = nullptr;
    agent->phase = agentx_phase::down;
    agent->more_input = false;
    agent->unanswered = 0;
    text_free(&agent->in);
    text_free(&agent->out);
    agentx_sets_end(agent);
    agentx_notify_lost(agent);
}

// A courtesy: a master that does not get it sees the end of the link.
void say_close(snmp_agent* agent, agentx_close_reason reason) {
    if (agent->phase < agentx_phase::registering || agent->out.length) return;
    agentx_writer w = agentx_begin(&agent->out, agentx_new_request(agent, AGENTX_CLOSE));
    agentx_put_u8(&w, reason);
    agentx_put_u8(&w, 0);
    agentx_put_u16(&w, 0);
    if (agentx_end(&w))
        (void)!send(agent->fd, agent->out.data, agent->out.length, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void drop_for(snmp_agent* agent, const char* why, int error) {
    agentx_drop(agent, error ? strerror(error) : why);
}

void enter(snmp_agent* agent, agentx_phase phase) {
    agent->phase = phase;
    agent->step_started = thread_now(agent->ctx);
}

// Steps to the session --------------------------------------------------------------------------------------

bool want_read(snmp_agent* agent) {
    if (!agent->read) agent->read = thread_add_read(agent->ctx, on_readable, agent, agent->fd);
    return agent->read != nullptr;
}

// Begins the PDU of a step whose answer is awaited; send_step sends it.
agentx_writer begin_step(snmp_agent* agent, agentx_phase phase, agentx_type type) {
    enter(agent, phase);
    const agentx_header header = agentx_new_request(agent, type);
    agent->awaited = header.packet;
    return agentx_begin(&agent->out, header);
}

void send_step(snmp_agent* agent, agentx_writer* w) {
    if (!agentx_end(w) || !want_read(agent)) return agentx_drop(agent, "no memory for the session");
    agentx_flush(agent);
    arm_timer(agent);
}

void send_open(snmp_agent* agent) {
    const snmp_module* named = agent->modules;
    agentx_writer w = begin_step(agent, agentx_phase::opening, AGENTX_OPEN);
    agentx_put_u32(&w, 0);  // time-outs are the master's own
    agentx_put_oid(&w, named->root());
    agentx_put_string(&w, named->name, std::strlen(named->name));
    send_step(agent, &w);
}

void send_register(snmp_agent* agent) {
    constexpr std::uint8_t DEFAULT_PRIORITY = 127;
    agentx_writer w = begin_step(agent, agentx_phase::registering, AGENTX_REGISTER);
    agentx_put_u8(&w, 0);
    agentx_put_u8(&w, DEFAULT_PRIORITY);
    agentx_put_u16(&w, 0);
    agentx_put_oid(&w, agent->registering->root());
    send_step(agent, &w);
}

int on_writable(thread* event) {
    auto* agent = static_cast<snmp_agent*>(event->arg);
    agent->write = nullptr;
    if (agent->phase != agentx_phase::connecting) {
        agentx_flush(agent);
        return 0;
    }
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(agent->fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) error = errno;
    if (error)
        drop_for(agent, nullptr, error);
    else
        send_open(agent);
    return 0;
}

bool want_write(snmp_agent* agent) {
    if (!agent->write) agent->write = thread_add_write(agent->ctx, on_writable, agent, agent->fd);
    return agent->write != nullptr;
}

void connect_now(snmp_agent* agent) {
    const int fd = link_open(&agent->target);
    if (fd < 0) return drop_for(agent, nullptr, -fd);
    agent->fd = fd;
    agent->session = 0;
    agent->in.limit = AGENTX_HEADER_SIZE + PDU_MAX + CHUNK;
    agent->out.limit = OUTPUT_MAX;
    agent->heard = thread_now(agent->ctx);
    ++agent->stats.connects;
    enter(agent, agentx_phase::connecting);
    if (!want_write(agent)) return agentx_drop(agent, "no memory for the link");
    arm_timer(agent);
}

void registered(snmp_agent* agent) {
    agent->registering = agent->registering->next;
    if (agent->registering) return send_register(agent);
    enter(agent, agentx_phase::serving);
    agent->delay_ms = 0;
    agent->outage_said = false;
    log_suite(LOG_LEVEL_INFO, "SNMP: registered with the master");
    arm_timer(agent);
}

// Input -----------------------------------------------------------------------------------------------------

void refused(snmp_agent* agent, const char* what, std::uint16_t error) {
    char why[64];
    std::snprintf(why, sizeof why, "the master refuses %s, error %u", what, static_cast<unsigned>(error));
    agentx_drop(agent, why);
}

// Once a session, so that what was read before reads the same afterwards.
void take_up_time(snmp_agent* agent, std::uint32_t hundredths) {
    agent->up_time_ahead = static_cast<std::int64_t>(hundredths) * 10 * static_cast<std::int64_t>(NS_PER_MS) -
                           static_cast<std::int64_t>(thread_now(agent->ctx));
}

void take_answer(snmp_agent* agent, const agentx_header& header, std::uint32_t up_time, std::uint16_t error) {
    if (agent->phase == agentx_phase::serving) {
        if (agent->unanswered && --agent->unanswered) agent->unanswered_since = thread_now(agent->ctx);
        if (error == AGENTX_NOT_OPEN) return refused(agent, "the session", error);
        return agentx_notify_answered(agent, header.packet, error);
    }
    if (header.packet != agent->awaited) return;
    if (agent->phase == agentx_phase::opening) {
        if (error) return refused(agent, "the session", error);
        agent->session = header.session;
        take_up_time(agent, up_time);
        agent->registering = agent->modules;
        return send_register(agent);
    }
    if (error) return refused(agent, "the registration", error);
    registered(agent);
}

// False: the link is of no use any more.
bool take_response(snmp_agent* agent, const agentx_header& header, const_octets payload) {
    agentx_reader r{payload, 0, agentx_is_big_endian(header), false};
    const std::uint32_t up_time = agentx_take_u32(&r);
    const std::uint16_t error = agentx_take_u16(&r);
    (void)agentx_take_u16(&r);  // index; what a master appends is of no interest
    if (r.bad) return false;
    take_answer(agent, header, up_time, error);
    return true;
}

bool is_request(std::uint8_t type) {
    return (type >= AGENTX_GET && type <= AGENTX_CLEANUP_SET) || type == AGENTX_PING;
}

bool take_pdu(snmp_agent* agent, const agentx_header& header, const_octets payload) {
    ++agent->stats.pdus_in;
    if (header.type == AGENTX_RESPONSE) return take_response(agent, header, payload);
    if (header.type == AGENTX_CLOSE) {
        agentx_drop(agent, "closed by the master");
        return true;
    }
    if (!is_request(header.type) || agent->phase < agentx_phase::registering) return false;
    ++agent->stats.requests;
    if (header.session == agent->session) return agentx_answer(agent, header, payload, &agent->out);
    return header.type == AGENTX_CLEANUP_SET || agentx_answer_status(header, AGENTX_NOT_OPEN, 0, &agent->out);
}

void garbage(snmp_agent* agent) {
    ++agent->stats.malformed;
    say_close(agent, AGENTX_CLOSE_PARSE_ERROR);
    agentx_drop(agent, "the master sent what can't be read");
}

const_octets input(const snmp_agent* agent) {
    return {reinterpret_cast<const std::uint8_t*>(agent->in.data), agent->in.length};
}

// The whole PDUs of the buffer, as many as a turn of the loop may take.
void take_input(snmp_agent* agent) {
    std::size_t used = 0;
    const int fd = agent->fd;
    agent->more_input = false;
    for (int left = PDUS_A_TURN; agent->in.length - used >= AGENTX_HEADER_SIZE; --left) {
        agentx_header header;
        const const_octets rest = input(agent).subspan(used);
        if (!agentx_read_header(rest, &header) || header.length > PDU_MAX) return garbage(agent);
        const std::size_t whole = AGENTX_HEADER_SIZE + header.length;
        if (rest.size() < whole) break;
        if (left == 0 || agent->out.length > AGENTX_OUTPUT_ENOUGH) {
            agent->more_input = true;
            break;
        }
        if (!take_pdu(agent, header, rest.subspan(AGENTX_HEADER_SIZE, header.length))) return garbage(agent);
        if (agent->fd != fd || agent->phase == agentx_phase::down) return;  // the link ended meanwhile
        used += whole;
    }
    text_consume(&agent->in, used);
}

// Goes on reading, unless the master has much to read itself.
void read_on(snmp_agent* agent) {
    if (agent->phase == agentx_phase::down || agent->out.length > AGENTX_OUTPUT_ENOUGH) return;
    if (!want_read(agent)) return agentx_drop(agent, "no memory for the link");
    if (agent->more_input) thread_mark_ready(agent->ctx, agent->fd);
}

// False when the link has ended.
bool read_chunk(snmp_agent* agent) {
    char chunk[CHUNK];
    const ssize_t count = recv(agent->fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return true;
    if (count <= 0) {
        drop_for(agent, "the master has gone", count < 0 ? errno : 0);
        return false;
    }
    agent->heard = thread_now(agent->ctx);
    if (text_append(&agent->in, chunk, static_cast<std::size_t>(count))) return true;
    agentx_drop(agent, "no memory for the master's request");
    return false;
}

int on_readable(thread* event) {
    auto* agent = static_cast<snmp_agent*>(event->arg);
    agent->read = nullptr;
    // What waits already comes first, so that the buffer stays within one PDU and a chunk.
    if (!agent->more_input && !read_chunk(agent)) return 0;
    take_input(agent);
    if (agent->phase == agentx_phase::down) return 0;
    agentx_flush(agent);
    read_on(agent);
    return 0;
}

}  // namespace

void agentx_set_link_open(agentx_link_open open) {
    link_open = open ? open : agentx_link_open_real;
}

void agentx_connect_soon(snmp_agent* agent) {
    wait_to_connect(agent, 0);
}

void agentx_restart(snmp_agent* agent) {
    if (!agent->ctx->master || !agent->modules) return;
    agentx_close(agent, AGENTX_CLOSE_OTHER);
    agent->delay_ms = 0;
    agent->outage_said = false;
    agentx_connect_soon(agent);
}

void agentx_drop(snmp_agent* agent, const char* why) {
    const bool served = agent->phase == agentx_phase::serving;
    std::snprintf(agent->last_error, sizeof agent->last_error, "%s", why);
    if (served) ++agent->stats.drops;
    if (served || !agent->outage_said) log_suite(LOG_LEVEL_INFO, "SNMP: no master: %s; trying again", why);
    agent->outage_said = true;
    forget_link(agent);
    agent->delay_ms = agent->delay_ms ? std::min(agent->delay_ms * 2, DELAY_MAX_MS) : DELAY_FIRST_MS;
    wait_to_connect(agent, agent->delay_ms);
}

void agentx_close(snmp_agent* agent, agentx_close_reason reason) {
    say_close(agent, reason);
    forget_link(agent);
}

agentx_header agentx_new_request(snmp_agent* agent, agentx_type type) {
    return {AGENTX_VERSION, type, AGENTX_FLAG_BIG_ENDIAN, agent->session, 0, ++agent->next_packet, 0};
}

void agentx_request_sent(snmp_agent* agent) {
    if (agent->unanswered++ == 0) agent->unanswered_since = thread_now(agent->ctx);
    agentx_flush(agent);
    arm_timer(agent);
}

void agentx_flush(snmp_agent* agent) {
    if (agent->fd < 0 || agent->out.length == 0) return;
    const ssize_t count = send(agent->fd, agent->out.data, agent->out.length, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0 && errno != EAGAIN && errno != EINTR) return drop_for(agent, nullptr, errno);
    const bool was_full = agent->out.length > AGENTX_OUTPUT_ENOUGH;
    if (count > 0) text_consume(&agent->out, static_cast<std::size_t>(count));
    if (agent->out.length == 0 || count > 0 || !agent->write) agent->stalled_since = thread_now(agent->ctx);
    if (agent->out.length && !want_write(agent)) return agentx_drop(agent, "no memory for the link");
    if (was_full) read_on(agent);
    if (agent->out.length) arm_timer(agent);
}
